#!/bin/sh
# Writes the metrics of a status page (or a host's process id) to a file, whole or not at all.
#   collect.sh PAGE FILE.prom
set -eu
kavo-stat --prometheus "$1" >"$2.$$"
mv "$2.$$" "$2"
