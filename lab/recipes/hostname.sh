#!/bin/sh
# metadata_begin
# recipe: Host name
# tags: centos, debian
# revision: 1
# description_en: Gives the server the name in NAME, now and after a reboot
# metadata_end
set -e
: "${NAME:?the new name}"
echo "$NAME" >/etc/hostname
hostname "$NAME"
echo "this is $(hostname)"
