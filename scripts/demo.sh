#!/usr/bin/env bash
# Sets everything up, builds meterd and runs it against a local FreeRADIUS
# on the simulated access point.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Debug >/dev/null
cmake --build build -j2
PYTHONDONTWRITEBYTECODE=1 METERD_BUILD_DIR="$PWD/build" /usr/bin/python3 scripts/demo.py "$@"
