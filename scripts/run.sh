#!/usr/bin/env bash
# Builds the agent and runs it in the foreground. When no settings file
# exists yet it writes one that watches the "Renders" folder in your videos
# folder with desktop notifications and sound on.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
quillon_install_packages "${QUILLON_BUILD_PACKAGES[@]}" || exit 1

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)" --target quillon-helper quillon-prefs

# Run as root, the agent writes its log under /var/log/Morvane, which only
# an administrator can create.
if [ "$(id -u)" -eq 0 ]; then mkdir -p /var/log/Morvane; fi

exec build/bin/quillon-helper --default-settings "$@"
