#!/bin/sh
# Runs the tests of the module hxcf: run.sh PYTHON FOLDER [OPTION...], where FOLDER holds the package
# and nothing else finds it. The options go to pytest.
set -e
python=$1
PYTHONPATH=$(realpath "$2") PYTHONDONTWRITEBYTECODE=1
export PYTHONPATH PYTHONDONTWRITEBYTECODE
shift 2
cd "$(dirname "$0")"
exec "$python" -m pytest -q -p no:cacheprovider "$@" .
