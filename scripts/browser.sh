#!/usr/bin/env bash
# Tests the page of hxcf serve in a browser. For that it fetches chromium and npm, 180 MB; where they are
# not there, scripts/test.sh leaves these tests out.
#   scripts/browser.sh [CTEST-OPTION...]
. "$(dirname "$0")/common.sh"

need_compiler /usr/include/gmock/gmock.h=libgmock-dev python3=python3 npm=npm \
  chromium=chromium chromedriver=chromium-driver /usr/bin/compare=imagemagick
build dev -DHX_PAGE_MAP=ON
exec ctest --preset dev -L browser "$@"
