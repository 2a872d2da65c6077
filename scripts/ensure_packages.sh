#!/usr/bin/env bash
# Installs, with apt-get, those of the named Debian packages that are missing.
#   ensure_packages.sh [--optional] PACKAGE...
# With --optional a failed installation is reported and ignored (for clients
# whose tests skip themselves when absent).
set -euo pipefail
optional=0
if [ "${1:-}" = "--optional" ]; then
  optional=1
  shift
fi
missing=()
for package in "$@"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "ok installed" || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0
echo "Installing: ${missing[*]}"
sudo_cmd=()
[ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
install() {
  "${sudo_cmd[@]}" apt-get update -q &&
    DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
}
if ! install; then
  [ $optional -eq 1 ] || exit 1
  echo "Could not install ${missing[*]}; the tests that need them report themselves skipped."
fi
