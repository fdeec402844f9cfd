# Sourced by the other scripts: brings in Debian packages that are missing.

# need PACKAGE...: installs those that are not there yet; as root, or through sudo.
need() {
  local missing=() package
  for package in "$@"; do
    dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed ||
      missing+=("$package")
  done
  ((${#missing[@]})) || return 0
  echo "== installing: ${missing[*]}"
  local asRoot=()
  ((EUID == 0)) || asRoot=(sudo)
  "${asRoot[@]}" apt-get update -qq
  "${asRoot[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

buildPackages=(
  g++ cmake ninja-build pkg-config libasio-dev nlohmann-json3-dev libcli11-dev libfmt-dev
  libnetfilter-queue-dev libmnl-dev libsystemd-dev
)
testPackages=(libgtest-dev libssl-dev iproute2 iptables procps python3)
clangPackages=(clang-19 clang-tidy-19 clang-format-19 libclang-rt-19-dev git)
