#!/usr/bin/env bash
# Installs the Debian packages quarn needs (only those missing), as root.
set -euo pipefail
cd "$(dirname "$0")/.."
mapfile -t wanted < <(grep -v '^\s*#' scripts/packages.txt | sed '/^\s*$/d')
missing=()
for p in "${wanted[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  if [ "$(id -u)" -ne 0 ]; then
    echo "setup: missing packages: ${missing[*]} (run as root to install them)" >&2
    exit 1
  fi
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -q
  apt-get install -y -q --no-install-recommends "${missing[@]}"
fi
