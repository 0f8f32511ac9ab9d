#!/usr/bin/env python3
"""Sends one mail: send_mail.py OWN-ADDRESS SERVER:PORT SENDER RECIPIENT. Prints the server's reply to the recipient, or to the
content when the recipient was taken."""

import smtplib
import sys

own, server, sender, recipient = sys.argv[1:]
host, _, port = server.partition(":")
with smtplib.SMTP(host, int(port), source_address=(own, 0), timeout=60) as client:
    client.ehlo("client.example.net")
    client.mail(sender)
    code, text = client.rcpt(recipient)
    if code == 250:
        code, text = client.data(f"Subject: from {own}\r\n\r\nHello.\r\n")
    print(code, text.decode())
