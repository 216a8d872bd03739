#!/bin/sh
# Runs a compiler (the arguments) after removing the file that it is to make. For precompiled
# headers: g++ would otherwise find the former one beside the header while it makes the new one,
# and keep its contents.
previous=
for argument in "$@"; do
  if [ "$previous" = -o ]; then rm -f -- "$argument"; fi
  previous=$argument
done
exec "$@"
