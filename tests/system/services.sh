#!/bin/sh -e
# What systemctl does for the mail servers where no systemd runs: systemctl restart|reload postfix|exim4|opensmtpd
case "$*" in
  "restart postfix") postfix status 2> /dev/null && postfix stop; postfix start ;;
  "reload postfix") postfix reload ;;
  "restart exim4")
    # As its unit does.
    update-exim4.conf
    [ ! -f /run/exim4/exim.pid ] || kill "$(cat /run/exim4/exim.pid)"
    exim4 -bd -q30m -oP /run/exim4/exim.pid ;;
  "restart opensmtpd") smtpd -f /etc/smtpd.conf ;;
  *) echo "what is systemctl $*?" >&2; exit 1 ;;
esac
