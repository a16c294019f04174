#!/bin/sh
# metadata_begin
# recipe: Demo tool
# tags: centos, debian
# revision: 2
# description_en: Installs demo-tool from the package repositories that the node knows
# description_de: Installiert demo-tool aus den Paketquellen des Servers
# metadata_end
set -e
if command -v apt-get >/dev/null && [ ! -e /etc/redhat-release ]; then
  export DEBIAN_FRONTEND=noninteractive
  apt-get -qq update
  apt-get -qqy install demo-tool >/dev/null
else
  yum -qy install demo-tool >/dev/null
fi
echo "demo-tool $(cat /opt/demo-tool/version) is installed"
