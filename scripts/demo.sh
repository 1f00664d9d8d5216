#!/usr/bin/env bash
# Installs what is missing, builds, and runs the demonstration: a producer
# process and a consumer process moving frame-sized messages through the
# shared-memory queue for a few seconds, with throughput and latency.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh"
"${BUILD_DIR:-$root/build}/tools/queue_demo" --seconds "${DEMO_SECONDS:-5}" "$@" | grep -v -e '^Mem trunk' -e 'share memory' -e 'shared memory'
