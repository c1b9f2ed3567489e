#!/usr/bin/env bash
# Builds the API reference from the public header into build/docs/html and checks the manual pages. A
# function without a text, a text that Doxygen cannot read and a slip in a page are failures.
#
# A heading of the header opens a section of the reference, and a plain comment right under it is the
# section's introduction; a comment that opens with two stars belongs to one declaration.
set -euo pipefail
cd "$(dirname "$0")/.."

version=$(sed -n 's/^project(sdb VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
out=build/docs
rm -rf "$out"
mkdir -p "$out"

# Spells the sections out for Doxygen. Every line keeps its number.
perl -0777 -p -e '
  my $open = 0;
  s~/\* -+ ([^\n]+?) -+ \*/\n(?:\n/\* ((?:(?!\*/).)*?)\s*\*/\n\n)?~
    ($open++ ? "/** \@} */ " : "") . "/** \@name \u$1" .
    (defined $2 ? "\n *\n * $2 */\n/** \@{ */\n" : " */ /** \@{ */\n")~gse;
  s~(?=\n#pragma GCC visibility pop)~/** \@} */~;
' include/zem_sdb.h >"$out/zem_sdb.h"

doxygen - <<EOF
PROJECT_NAME = sdb
PROJECT_NUMBER = $version
INPUT = $out/zem_sdb.h
OUTPUT_DIRECTORY = $out
FULL_PATH_NAMES = NO
OPTIMIZE_OUTPUT_FOR_C = YES
JAVADOC_AUTOBRIEF = YES
SORT_MEMBER_DOCS = NO
MACRO_EXPANSION = YES
GENERATE_LATEX = NO
HAVE_DOT = NO
QUIET = YES
WARN_AS_ERROR = FAIL_ON_WARNINGS
EOF

mandoc -T lint -W warning docs/man/*
echo "docs: $out/html/index.html"
