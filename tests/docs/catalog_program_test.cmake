# Runs the catalogue example as a user does: exit codes, messages, the report, the chain file.
#
#   cmake -DPROGRAM=… -DWORK=… [-DEMULATOR=…] -P catalog_program_test.cmake
cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/../support/run_program.cmake)

# The program must succeed, say nothing on stderr and have returned all storage.
function(expect_packed)
  expect_success(${ARGN})
  if(NOT out MATCHES "not returned +0  bytes in 0 areas\n")
    fail("catalog ${ARGN}: expected a storage account at zero")
  endif()
  set(out "${out}" PARENT_SCOPE)
endfunction()

# The same bytes on every platform, for ever.
function(expect_equal file kept)
  execute_process(COMMAND ${CMAKE_COMMAND} -E compare_files ${kept} "${WORK}/${file}"
                  COMMAND_ERROR_IS_FATAL ANY)
endfunction()

cmake_path(GET PROGRAM PARENT_PATH folder)
set(sample ${folder}/sample-status)
set(fixture ${CMAKE_CURRENT_LIST_DIR}/../fixtures/catalog-sample)

# The sample, in one block and in many.
expect_packed(${sample} --output sample.chain)
if(NOT out MATCHES "blocks +1  of 32,768 bytes" OR NOT out MATCHES "\\(26 packages, ")
  fail("the report on the sample is not what was expected")
endif()
if(NOT out MATCHES "\nMost needed packages\n  libc6 +15  dependencies: Bibliothèque C standard – ")
  fail("the report on the sample does not show the most needed packages")
endif()
foreach(step read build pack write port sink)
  if(NOT out MATCHES "  ${step} +[0-9]+\\.[0-9]\n")
    fail("the report does not time the step ${step}")
  endif()
endforeach()
expect_equal(sample.chain ${fixture}.chain)
expect_equal(sample.chain.port ${fixture}.chain.port)

# A second process that knows the structures from the files only.
expect_packed(${sample} --read-from ${fixture}.chain)
if(NOT out MATCHES "\\(26 packages, " OR NOT out MATCHES "read from the file; equal to the catalogue\n")
  fail("the report on the chain that was read is not what was expected")
endif()
foreach(step read load unpack check port)
  if(NOT out MATCHES "  ${step} +[0-9]+\\.[0-9]\n")
    fail("the report does not time the step ${step}")
  endif()
endforeach()

expect_packed(--block-length 1100 --output many.chain ${sample})
if(NOT out MATCHES "blocks +([0-9]+)  of 1,100 bytes" OR CMAKE_MATCH_1 LESS 5)
  fail("expected several blocks")
endif()
expect_equal(many.chain ${fixture}-1100.chain)
expect_packed(${sample} --read-from many.chain)

# Also over an existing file that is longer.
file(COPY_FILE ${WORK}/many.chain ${WORK}/sample.chain)
expect_packed(${sample} --output sample.chain)
expect_equal(sample.chain ${fixture}.chain)

# Without a name the chain is next to the program, in a folder of this build's own.
file(REMOVE ${folder}/catalog.chain ${folder}/catalog.chain.port)
expect_packed(${sample})
file(COPY ${folder}/catalog.chain ${folder}/catalog.chain.port DESTINATION ${WORK})
expect_equal(catalog.chain ${fixture}.chain)
expect_equal(catalog.chain.port ${fixture}.chain.port)
expect_packed(${sample} --read)

# A link is not followed; what it names stays as it is. (Wine has no links of its own.)
if(NOT EMULATOR)
  foreach(name "" .port)
    file(WRITE ${WORK}/kept "kept")
    file(REMOVE ${WORK}/link.chain ${WORK}/link.chain.port)
    file(CREATE_LINK ${WORK}/kept ${WORK}/link.chain${name} SYMBOLIC)
    expect_refused(2 "cannot write link.chain${name}: it is a link" ${sample} --output link.chain)
    file(READ ${WORK}/kept kept)
    if(NOT kept STREQUAL "kept")
      message(FATAL_ERROR "a link was followed")
    endif()
  endforeach()
  file(CREATE_LINK ${WORK}/kept ${WORK}/other.chain.new SYMBOLIC)  # the name that is written first
  expect_packed(${sample} --output other.chain)
  expect_equal(other.chain ${fixture}.chain)
  file(READ ${WORK}/kept kept)
  if(NOT kept STREQUAL "kept")
    message(FATAL_ERROR "a link was followed")
  endif()
  expect_refused(2 "cannot write /dev/null: it is not a regular file" ${sample} --output /dev/null)
endif()

# A name that no single code page holds.
file(COPY_FILE ${sample} "${WORK}/katalog-ä-本.status")
expect_packed("katalog-ä-本.status" --output "kette-ä-本.chain")
expect_equal("kette-ä-本.chain" ${fixture}.chain)

expect_success(--help)
if(NOT out MATCHES "\nUsage: catalog ")
  fail("--help does not show the usage")
endif()

# Wrong input.
file(WRITE ${WORK}/empty "")
file(WRITE ${WORK}/blank "\n\n \n")
file(WRITE ${WORK}/text "Package: a\n\nno field here\n")
file(WRITE ${WORK}/nameless "Version: 1\n")
expect_refused(2 "cannot read absent" absent)
expect_refused(2 "it is a directory" ${WORK})
expect_refused(2 "empty is empty" empty)
expect_refused(2 "blank contains no package" blank)
expect_refused(2 "text, line 3" text)
expect_refused(2 "without a package name" nameless)
expect_refused(2 "it is a directory" ${sample} --output ${WORK})
expect_refused(2 "cannot write" ${sample} --output absent/chain)
file(COPY_FILE ${sample} ${WORK}/both)
expect_refused(2 "would overwrite the catalogue both: use another file for --output" both --output ./both)
expect_equal(both ${sample})
expect_refused(2 "not expected: --unknown" --unknown)
expect_refused(2 "--output: 1 required FILE missing" --output)
expect_refused(2 "--block-length: Value many not in range 1 to 2147483647" --block-length many)
expect_refused(2 "not expected: ${sample}" ${sample} ${sample})

# Chain files that are none, and one of another catalogue.
file(WRITE ${WORK}/short "abc")
file(WRITE ${WORK}/lengths "ab0220abcdefgh")
expect_refused(2 "cannot read absent" ${sample} --read-from absent)
expect_refused(2 "short is not a chain file" ${sample} --read-from short)
expect_refused(2 "wrong length of block 0" ${sample} --read-from lengths)
expect_refused(2 "--read-from: 1 required FILE missing" ${sample} --read-from)
file(COPY_FILE ${fixture}.chain ${WORK}/halved.chain)
expect_refused(2 "cannot read halved.chain.port" ${sample} --read-from halved.chain)
file(WRITE ${WORK}/halved.chain.port "(0000000029,0000000001)(1<>")
expect_refused(2 "halved.chain.port is not a port string" ${sample} --read-from halved.chain)
file(WRITE ${WORK}/other "Package: other\nVersion: 1\n")
expect_refused(1 "the chain differs from the catalogue" other --read-from ${fixture}.chain)

# A service that fails.
expect_refused(1 "4066 MEMERR_PACKBMIN" ${sample} --output small.chain --block-length 900)
if(EXISTS ${WORK}/small.chain)
  message(FATAL_ERROR "a failed run left a chain file")
endif()
