#!/usr/bin/env bash
# Builds and runs the tests that show what differs on arm64: the width and signedness of types, alignment, the libraries
# of that architecture. They run by qemu's user emulation, those IN_TWIN on emulated devices.
#
#   arm64_tests.sh BUILD JOBS [CTEST_ARGUMENT...]
set -euo pipefail

build=$1 jobs=$2
shift 2

# The test programs, by their targets: formats, digests, files, partitions, the microcontroller's protocol, the package.
programs=(
    fake_services_test base_test package_test platform_config_test
    utility_test utility_log_test utility_partitions_test
    mcu_test mcu_spidev_link_test flash_mcu_test flash_mpu_test
    upgrade_package_test tools_test mcu_emulator_test)
in_part=(upgrade_run_test upgrade_test)

# Of two of them only what is about records and text.
records='^upgrade_run_test\.Config|^upgrade_test\.(Upgrade|Version)'

# What starts programs of the build, cancels threads, or is about this host.
not_here='_on_block_devices$|SerialLink.sets_the_line|destroyed_while_it_writes_on_another_thread|Cancel'
not_here+='|^utility_test\.(.*/)?(RunSystem|Signal|UserThread)\.'
not_here+='|^tools_test\.(.*/)?(Cli|Help|CommandHelp|WrongCommandLine|PackageCommands|TwinCommand)\.'
not_here+='|^mcu_emulator_test\.(.*/)?Emulator\.'

# The inputs that the fuzzer has collected.
for name in archive boot_environment escaped_text frame json_config microcontroller names platform_json srecord trailer uds \
    written_slot; do
    fuzzers+=("${name}_fuzz")
done

# What is left out, and why.
left_out() {
    cat <<'TEXT'
left out, for ./dev test runs them on this host's own processor, and ./dev device the programs as a whole on arm64:
  cancelled threads, give-up, unloading   emulated, a process that is cancelled or unloaded is qemu's more than ours
  faults of system calls, full disks      the calls that fail are those of the host's kernel, whatever the processor
  scripts                                 they start programs of the build by their paths, which this host cannot execute
  SerialLink.sets_the_line                qemu's user emulation knows no 921600 baud
  Mpu.driver_may_be_destroyed_while_...   digests 2 GiB, for which the emulation takes minutes
  cases on block devices                  the plain form has tried the same code
TEXT
}

# one_of NAME...: as a regular expression for the beginnings of tests' names.
one_of() {
    local IFS='|'
    printf '^(%s)\\.\n' "$*"
}

cmake --build "$build" --target "${programs[@]}" "${in_part[@]}" "${fuzzers[@]}"
rm -rf "$build/twins"
ctest --test-dir "$build" --parallel "$jobs" --output-on-failure --no-tests=error -R "$(one_of "${programs[@]}" fuzz)|$records" \
    -E "$not_here" "$@" </dev/null
left_out
