#!/usr/bin/env bash
# Sets a fresh machine up and runs every check that a change has to pass. Takes about a quarter of an
# hour on two cores.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/check.sh
