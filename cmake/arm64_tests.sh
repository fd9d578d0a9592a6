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
    fake_services_test platform_config_test
    utility_copy_test utility_digest_test utility_log_test utility_manage_test utility_partitions_test utility_read_test
    utility_running_digest_test utility_text_test utility_write_test
    platform_byte_link platform_frame platform_mcu_client platform_mcu_image platform_serial_link platform_spidev_link
    platform_srecord platform_srecord_tools platform_uds platform_uds_client
    platform_block_reader platform_upgrade_mcu platform_upgrade_mpu platform_upgrade_mpu_activation
    upgrade_common_test upgrade_version_ctrl_test upgrade_proc_pkg_trailer_test upgrade_proc_pkg_processing_test
    upgrade_verify_components_test
    tools_escaped_text tools_pack tools_package_check tools_package_trailer tools_package_version tools_run_log
    tools_run_report tools_run_view
    twin_fault_test twin_flash_memory_test twin_link_end_test twin_microcontroller_test)

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

cmake --build "$build" --target "${programs[@]}" "${fuzzers[@]}"
rm -rf "$build/twins"
ctest --test-dir "$build" --parallel "$jobs" --output-on-failure --no-tests=error -R "$(one_of "${programs[@]}" fuzz)" \
    -E '_on_block_devices$|SerialLink.sets_the_line|destroyed_while_it_writes_on_another_thread|Cancel' "$@" </dev/null
left_out
