#!/bin/sh
# Removes the output file of a compiler, then runs the compiler (the arguments). For precompiled
# headers: otherwise g++ would find the old one next to the header while it makes the new one, and
# keep its contents.
previous=
for argument in "$@"; do
  if [ "$previous" = -o ]; then rm -f -- "$argument"; fi
  previous=$argument
done
exec "$@"
