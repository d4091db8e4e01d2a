#!/usr/bin/env python3
"""A CONNECT proxy on 127.0.0.1 that tunnels every host name to --target-port (loopback_server.py)."""
import sys

import loopback_server

loopback_server.main(["--connect-to" if arg == "--target-port" else arg for arg in sys.argv[1:]])
