# shellcheck shell=dash
#
# The router's own network and its settings, as they are before anything is installed, and a fetcher
# that asks for http in place of https.
ip link add br-lan type bridge
ip addr add 192.168.1.1/24 dev br-lan
ip link set br-lan up
mkdir -p /etc/crontabs
cat >/tmp/router/uclient-fetch <<'END' && chmod +x /tmp/router/uclient-fetch
#!/bin/sh
for url; do :; done
exec wget -q -O - "http${url#https}"
END
printf "\nconfig interface 'lan'\n\toption ipaddr '192.168.1.1'\n\n" >/etc/config/network
printf "\nconfig dnsmasq\n\toption nonwildcard '1'\n\nconfig dhcp 'lan'\n\toption start '100'\n\n" \
	>/etc/config/dhcp
printf "\nconfig zone\n\toption name 'lan'\n\n" >/etc/config/firewall
