#!/bin/sh
# Runs a command inside the network namespace it is started in (unshare -n),
# after making a private network there: a veth pair between 10.77.0.1 (kz)
# and 10.77.0.2 (its peers: a renderer, a speaker), multicast routed over
# it, every address local to the namespace. Nothing leaves the machine.
# Exits 77 (a skip) when the network cannot be made: not root, no veth.
#   unshare -n sh tests/in-netns.sh COMMAND...
{
  ip link set lo up &&
  ip link add eth0 type veth peer name eth1 &&
  ip addr add 10.77.0.1/24 dev eth0 &&
  ip addr add 10.77.0.2/24 dev eth1 &&
  ip link set eth0 up &&
  ip link set eth1 up &&
  ip route add 224.0.0.0/4 dev eth0 &&
  ip route add default dev eth0
} || exit 77
# SSDP between two local addresses is dropped unless the kernel accepts
# local sources and skips the reverse-path check; binds wait ~2 s for
# duplicate address detection unless it is off.
for i in all default eth0 eth1; do
  echo 1 > /proc/sys/net/ipv4/conf/$i/accept_local || exit 77
  echo 0 > /proc/sys/net/ipv4/conf/$i/rp_filter || exit 77
done
for i in all default; do echo 0 > /proc/sys/net/ipv6/conf/$i/accept_dad 2>/dev/null; done
exec "$@"
