#!/bin/sh
# Compiles a precompiled header: removes the compiler's output file, then runs the arguments, ccache
# and the compiler. Without it a header can be made from files that have changed since:
# - g++ would find the old output next to the header while it makes the new one, and keep its
#   contents.
# - ccache would take a cached one after a change of comments only, since it compares what the
#   preprocessor leaves. But g++ knows the files of `#pragma once` by all their bytes, and would
#   read the changed file a second time. In depend mode ccache compares the files themselves.
previous=
for argument in "$@"; do
  if [ "$previous" = -o ]; then rm -f -- "$argument"; fi
  previous=$argument
done
CCACHE_DEPEND=1 exec "$@"
