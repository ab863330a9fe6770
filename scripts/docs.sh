#!/usr/bin/env bash
# Builds the documentation as a site that needs no network, into build/site: the guide and the reference from docs/, the
# headers' reference by Doxygen. Fails on a warning of Doxygen's, and on a link that leads nowhere.
set -euo pipefail
cd "$(dirname "$0")/.."
[ $# -eq 0 ] || { echo "usage: scripts/docs.sh" >&2; exit 2; }

./scripts/install-packages.sh docs
site=build/site
version=$(sed -n 's/^project(tavrix VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
rm -rf "$site"
mkdir -p "$site"
{
    cat docs/site/Doxyfile
    printf '%s\n' "PROJECT_NUMBER = $version" "OUTPUT_DIRECTORY = $site" "HTML_OUTPUT = api"
} | doxygen -
/usr/bin/python3 docs/site/build.py "$site" "$version" # Debian's, which has Debian's markdown
echo "$site/index.html"
