# Sourced by the other scripts: brings in Debian packages that are missing.

# missing PACKAGE...: those that are not there yet.
missing() {
  local package
  for package in "$@"; do
    dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed ||
      echo "$package"
  done
}

# need PACKAGE...: installs those that are not there yet; as root, or through sudo.
need() {
  local packages
  mapfile -t packages < <(missing "$@")
  ((${#packages[@]})) || return 0
  echo "== installing: ${packages[*]}"
  local asRoot=()
  ((EUID == 0)) || asRoot=(sudo)
  "${asRoot[@]}" apt-get update -qq
  "${asRoot[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -qq --no-install-recommends "${packages[@]}" >/dev/null
}

# needIdle PACKAGE...: the same for packages whose services are not to start.
needIdle() {
  local policy=/usr/sbin/policy-rc.d asRoot=()
  if [[ -e $policy || -z $(missing "$@") ]]; then
    need "$@"
    return
  fi
  ((EUID == 0)) || asRoot=(sudo)
  (
    trap '"${asRoot[@]}" rm -f "$policy"' EXIT
    printf '#!/bin/sh\nexit 101\n' | "${asRoot[@]}" install -m 755 /dev/stdin "$policy"
    need "$@"
  )
}

buildPackages=(
  g++ cmake ninja-build pkg-config libasio-dev nlohmann-json3-dev libcli11-dev libfmt-dev
  libnetfilter-queue-dev libmnl-dev libsystemd-dev libbpf-dev clang-19
)
testPackages=(libgtest-dev libssl-dev iproute2 iptables nftables procps python3)
clangPackages=(clang-tidy-19 clang-format-19 libclang-rt-19-dev git)
soakPackages=(iproute2 iptables nftables procps python3 util-linux)
benchPackages=(libbenchmark-dev iproute2 iptables procps python3 util-linux)
# What is measured beside us.
benchPeers=(haproxy nginx-light libnginx-mod-stream redsocks)
