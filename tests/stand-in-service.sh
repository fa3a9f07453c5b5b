#!/bin/sh
# A stand-in for the host daemon as the time service's program in install tests: it runs until it
# is stopped and reaches no network. Told that its parameters changed (SIGHUP), it goes on running,
# as the host does.
trap '' HUP
exec sleep 3600
