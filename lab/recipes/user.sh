# metadata_begin
# recipe: Administrator
# tags: centos, debian
# description_en: Makes the user in LOGIN, with the public key in KEY
# metadata_end
set -e
useradd --create-home "${LOGIN:?the user}"
install -d -m 700 -o "$LOGIN" "/home/$LOGIN/.ssh"
echo "${KEY:?a public key}" >"/home/$LOGIN/.ssh/authorized_keys"
chown "$LOGIN" "/home/$LOGIN/.ssh/authorized_keys"
id "$LOGIN"
