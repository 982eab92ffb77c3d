#!/usr/bin/env bash
# Builds the reference of the public headers in build/docs; a public name without a comment fails.
. "$(dirname "$0")/common.sh"

need doxygen=doxygen
mkdir -p build
doxygen docs/Doxyfile
echo "build/docs/html/index.html"
