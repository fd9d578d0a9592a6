#!/usr/bin/env bash
# On the device: runs a program that installs a package, and tells which entries of the device's root, which is gone when the device's programs
# have ended, were made meanwhile. Exit status: that of the program.
#
#   package_mutation_inside.sh PROGRAM [ARGUMENT...]
set -uo pipefail

# The device's state and what the host lends are other file systems, which are looked after from outside.
entries() {
    find / /etc /run /dev -xdev ! -path /run/lock/fw_printenv.lock ! -path '/dev/pts/*' 2>/dev/null | sort
}

before=$(entries)
code=0
# Where the package has made something wait, this ends it, and the run with it.
timeout --signal=TERM 120 "$@" || code=$?
diff <(printf '%s\n' "$before") <(entries) | sed -n 's/^> /outside: /p'
exit "$code"
