# What the pages' commands find: an own network with the addresses of the examples, a tree to push, and
# for boxes that ask for it a node and a lead at work. Read by the shell that runs a page's boxes.

set -euo pipefail

ip link set lo up
for host in 1 2 11 12 13; do ip address add "192.0.2.$host/24" dev lo; done
for place in /srv /opt /run /dev/shm; do mount -t tmpfs scene "$place"; done
unset XDG_RUNTIME_DIR

mkdir -p /srv/packages/release-7/etc /opt/packages
head -c 30000 /dev/urandom >/srv/packages/release-7/base.deb
echo 'colour = blue' >/srv/packages/release-7/etc/settings
ln -s base.deb /srv/packages/release-7/latest

scene_processes=()

start_node() {
  pkgdist-node --interface 192.0.2.11 --location 1=/opt/packages run >/dev/null &
  scene_processes+=($!)
}

# Waits until the node hears the lead; the box may address it.
start_serve() {
  pkgdist-lead --interface 192.0.2.1 --location 1=/srv/packages serve >/dev/null &
  scene_processes+=($!)
  local try
  for try in {1..50}; do
    pkgdist-lead --interface 192.0.2.1 message --nodes 192.0.2.11 --timeout 1 ready >/dev/null 2>&1 && return
    sleep 0.1
  done
  echo "no node heard the lead" >&2
  return 1
}

# A moment in which the node has received something.
start_traffic() {
  pkgdist-lead --interface 192.0.2.1 --location 1=/srv/packages push --nodes 192.0.2.11 release-7 >/dev/null
}

begin_box() {
  echo "== $1"
  echo "== $1" >&2
  local name
  for name in "${@:2}"; do "start_$name"; done
  set -x
}

end_box() {
  { set +x; } 2>/dev/null
  if [ ${#scene_processes[@]} -ne 0 ]; then
    kill "${scene_processes[@]}"
    wait "${scene_processes[@]}" || true
    scene_processes=()
  fi
}

# A command that works until it is told to stop: it must still be there after this time.
run_until() {
  local status=0
  timeout --signal=INT "$1" bash -c "exec $2" || status=$?
  [ "$status" -eq 124 ] || { echo "ended by itself with exit status $status: $2" >&2; return 1; }
}

# A lead whose node is the box's own.
start_own_lead() {
  pkgdist-lead --interface 192.0.2.1 --location 1=/srv/packages serve >/dev/null &
  scene_processes+=($!)
}
