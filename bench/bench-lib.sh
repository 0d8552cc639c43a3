# The benchmarks' way into private namespaces, sourced by the bench scripts
# that run a Google Benchmark program against the real kernel:
#
#   source bench/bench-lib.sh
#   bench_private_run "acl_table_bench" "ip iptables-restore" "$@"
#
# Outside the namespaces it needs root, installs what is missing, builds the
# targets with preset "bench", says what the machine is and runs the script
# again, with the same arguments, in private mount and network namespaces;
# inside them it mounts a private /run and brings the loopback up. Where that
# cannot be had it exits 77 and says why.

# bench_private_run TARGETS TOOLS ARGS...
bench_private_run() {
  local targets=$1 tools=$2 tool
  shift 2
  if [ "${ACL_PRIVATE_NAMESPACE:-}" != 1 ]; then
    [ "$(id -u)" = 0 ] || { echo "skipped: needs root for network namespaces and iptables"; exit 77; }
    set -e
    scripts/install-deps.sh
    cmake --preset bench > /dev/null
    # shellcheck disable=SC2086
    cmake --build --preset bench --target $targets -- -j2
    set +e
    for tool in unshare $tools; do
      command -v "$tool" > /dev/null || { echo "skipped: $tool is not installed"; exit 77; }
    done
    unshare -m -n true 2> /dev/null || { echo "skipped: cannot make private namespaces here"; exit 77; }
    local compiler
    compiler=$(sed -n 's/^CMAKE_CXX_COMPILER:[A-Z]*=//p' build/bench/CMakeCache.txt)
    echo "machine:  $(nproc) cores, $(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -n 1)"
    echo "compiler: $("$compiler" --version | head -n 1)"
    echo "kernel:   $(uname -r), $(iptables-restore --version 2>&1 | head -n 1)"
    echo "load:     $(cut -d ' ' -f 1-3 /proc/loadavg)"
    ACL_OUTER_NETNS=$(readlink /proc/self/ns/net) ACL_PRIVATE_NAMESPACE=1 \
      exec unshare -m -n -- bash "$0" "$@"
  fi
  mount -t tmpfs tmpfs /run && mkdir -p /run/netns || { echo "skipped: cannot mount a private /run"; exit 77; }
  ip link set lo up
}
