# Sourced by the scripts: ensure_packages PKG... installs the Debian packages that are missing
# (with apt-get, as root), or names them and stops when not run as root.
ensure_packages() {
  local missing=() p
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  ((${#missing[@]})) || return 0
  if [ "$(id -u)" != 0 ]; then
    echo "missing packages: ${missing[*]} (run as root, or install them with apt-get)" >&2
    exit 1
  fi
  echo "== installing: ${missing[*]}"
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}
