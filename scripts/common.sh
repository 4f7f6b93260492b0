# Shared by scripts/demo and scripts/test: install what is missing, then work
# from the top of the repository.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
BUILD_DIR="${TAV_BUILD_DIR:-build}"

# Installs the Debian packages among "$@" that dpkg does not report as
# installed, through sudo when not root. Nothing is run when all are there.
install_missing() {
  local need=() pkg
  for pkg in "$@"; do
    dpkg -s "$pkg" >/dev/null 2>&1 || need+=("$pkg")
  done
  [ "${#need[@]}" -eq 0 ] && return 0
  local as_root=()
  if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null; then
      echo "missing packages: ${need[*]}; run this as root, or install sudo" >&2
      exit 1
    fi
    as_root=(sudo)
  fi
  echo "== installing what is missing: ${need[*]}"
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${need[@]}"
}
