#!/usr/bin/env bash
# The tests of verify.sh, in a small checkout with steps of its own: each function test_NAME is a case.
# `verify_test.sh NAME` runs one.
set -euo pipefail

here=$(cd -- "${BASH_SOURCE[0]%/*}" && pwd)

die() {
    printf 'FAILED: %s\n' "$*" >&2
    [[ ! -f said ]] || cat said >&2
    exit 1
}

# make_checkout [LINE...]: with these lines as its table.
make_checkout() {
    git init -q
    git config user.name tester
    git config user.email tester@host.example
    mkdir -p tests/verify
    printf '%s\n' /build/ /cases/Testing/ /said /may_end /ran >.gitignore
    printf '# %s\n' none >tests/verify/may_skip
    printf '%s\n' "$@" >tests/verify/steps
    commit
}

commit() {
    git add -A
    git commit -q --allow-empty -m change
}

verify() {
    status=0
    "$here/verify.sh" --tree . "$@" >said 2>&1 || status=$?
}

# ends_with STATUS
ends_with() {
    [[ $status == "$1" ]] || die "the exit status is $status, not $1"
}

# says PATTERN
says() {
    grep -qE -- "$1" said || die "it does not say '$1'"
}

# holds STEP STATUS TRIED FAILED SKIPPED: what build/verify.json has of it, at this commit.
holds() {
    local row
    row=$(jq -r --arg step "$1" --arg commit "$(git rev-parse HEAD)" \
        '.[] | select(.step == $step and .commit == $commit) | "\(.status) \(.tried) \(.failed) \(.skipped)"' \
        build/verify.json)
    [[ $row == "$2 $3 $4 $5" ]] || die "the result of $1 is '$row', not '${*:2}'"
}

wait_for() {
    local attempts
    for ((attempts = 0; attempts < 300; attempts++)); do
        [[ ! -e $1 ]] || return 0
        sleep 0.1
    done
    die "there is no $1 after 30 s"
}

# interrupt_in STEP: the whole, ended while this step runs, which makes the file `ran` and waits.
interrupt_in() {
    "$here/verify.sh" --tree . >said 2>&1 &
    local verifier=$!
    wait_for ran
    kill -TERM "$verifier"
    status=0
    wait "$verifier" || status=$?
    holds "$1" interrupted 0 0 0
}

waits_to_be_ended='touch ran; for i in {1..300}; do [[ ! -e may_end ]] || exit 0; sleep 0.1; done; exit 1'

# --- cases ------------------------------------------------------------------------------------------------------------

test_all_steps_that_pass_are_a_pass() {
    make_checkout 'one waits once true' 'two computes once true' 'three alone once true'
    verify
    ends_with 0
    holds one passed 1 0 0
    holds two passed 1 0 0
    holds three passed 1 0 0
    [[ $(jq -r '.[] | .step' build/verify.json | xargs) == 'one two three' ]] || die "not in the order of the table"
}

test_a_step_that_fails_fails_the_whole() {
    make_checkout 'one waits once true' 'two waits once false' 'three waits once true'
    verify
    ends_with 1
    holds two failed 1 1 0
    holds three passed 1 0 0
}

test_a_skipped_step_has_not_passed() {
    make_checkout 'one waits once true' 'two waits said exit 77'
    verify
    ends_with 1
    holds two skipped 0 0 1
}

test_counts_of_suites_are_read() {
    make_checkout \
        'cuts waits said echo "power_cut: tried 7, ok 5, failed 2"; exit 1' \
        'rows waits said echo "12 rows, 0 failed"' \
        'marks waits marks printf "  ok    a: b\n  ok    c: d\n"' \
        'bad-marks waits marks printf "  ok    a: b\n  FAIL  c: d, expected e\n"; exit 1'
    verify
    ends_with 1
    holds cuts failed 7 2 0
    holds rows passed 12 0 0
    holds marks passed 2 0 0
    holds bad-marks failed 2 1 0
}

# make_cases COMMAND...: a project for ctest with these as its cases, in which 77 means skipped.
make_cases() {
    local command number=0
    mkdir -p cases
    for command; do
        number=$((number + 1))
        printf 'add_test(case_%d %s)\nset_tests_properties(case_%d PROPERTIES SKIP_RETURN_CODE 77)\n' \
            "$number" "$command" "$number"
    done >cases/CTestTestfile.cmake
}

test_counts_of_cases_are_read() {
    make_cases true false 'sh -c "exit 77"' true
    make_checkout 'cases waits cases ctest --test-dir cases'
    verify
    ends_with 1
    holds cases failed 3 1 1
}

test_a_suite_with_an_unexpected_skip_is_incomplete() {
    make_cases true 'sh -c "exit 77"'
    make_checkout 'cases waits cases ctest --test-dir cases'
    verify
    ends_with 1
    holds cases incomplete 1 0 1
    printf 'case_2\n' >>tests/verify/may_skip
    commit
    verify
    ends_with 0
    holds cases passed 1 0 1
}

test_a_suite_that_tried_nothing_has_not_passed() {
    make_checkout 'one waits said true' 'two waits marks echo nothing' 'three waits cases echo nothing'
    verify
    ends_with 1
    holds one failed 0 1 0
    holds two failed 0 1 0
    holds three failed 0 1 0
}

test_a_suite_that_counts_a_failure_and_succeeds_has_failed() {
    make_checkout 'one waits said echo "3 cuts, 1 failed"'
    verify
    ends_with 1
    holds one failed 3 1 0
}

test_an_interrupted_step_is_none_and_continued() {
    make_checkout 'one waits once echo x >>build/times' "two waits once $waits_to_be_ended" 'three alone once true'
    interrupt_in two
    ends_with 130
    says '^three .*not run$'
    touch may_end
    verify --continue
    ends_with 0
    holds two passed 1 0 0
    holds three passed 1 0 0
    [[ $(wc -l <build/times) == 1 ]] || die "a step that had passed ran again"
}

test_an_interruption_ends_what_runs() {
    make_checkout "one waits once trap 'touch build/cleaned' EXIT; trap 'exit 1' TERM; touch ran; sleep 60 & wait"
    interrupt_in one
    [[ -e build/cleaned ]] || die "the step's own end was not waited for"
}

test_a_step_that_is_killed_with_the_whole_is_interrupted() {
    make_checkout "one waits once $waits_to_be_ended" 'two waits once echo x >>build/times'
    "$here/verify.sh" --tree . >said 2>&1 &
    local verifier=$!
    wait_for ran
    kill -KILL "$verifier"
    wait "$verifier" 2>/dev/null || true
    jq -e '.status == "interrupted"' build/verify/one.json >/dev/null || die "the step is not told as interrupted"
    verify --continue
    ends_with 2
    says 'what a killed one has left'
    touch may_end
    verify --continue
    ends_with 0
    holds two passed 1 0 0
    [[ $(wc -l <build/times) == 1 ]] || die "what was killed went on with the next step"
}

test_a_result_at_another_commit_is_none() {
    make_checkout 'one waits once echo x >>build/times'
    verify
    commit
    verify --continue
    ends_with 0
    holds one passed 1 0 0
    [[ $(wc -l <build/times) == 2 ]] || die "the step did not run at the new commit"
}

test_a_commit_during_a_step_leaves_it_without_result() {
    make_checkout 'one waits once git commit -q --allow-empty -m meanwhile'
    verify
    ends_with 1
    says '^one .*not run$'
}

test_the_whole_needs_all_committed() {
    make_checkout 'one waits once true'
    touch new_file
    verify
    ends_with 2
    verify --continue
    ends_with 2
    [[ ! -e build/verify.json ]] || die "something was run"
}

test_a_result_of_uncommitted_changes_is_none_of_the_commit() {
    make_checkout 'one waits once echo x >>build/times'
    touch new_file
    verify one
    ends_with 0
    rm new_file
    verify --continue
    ends_with 0
    [[ $(wc -l <build/times) == 2 ]] || die "the result of other sources was taken"
}

test_a_failed_step_stays_failed_until_it_is_asked_for_and_tells_of_the_second_try() {
    make_checkout 'one waits once [[ -e may_end ]]'
    verify
    touch may_end
    verify --continue
    ends_with 1
    verify one
    ends_with 0
    says '^one .*passed, at try 2$'
}

test_single_steps_leave_the_results_of_others() {
    make_checkout 'one waits once true' 'two waits once true'
    verify
    verify two
    ends_with 0
    holds one passed 1 0 0
    verify three
    ends_with 2
}

test_steps_that_compute_run_beside_those_that_wait_and_alone_is_alone() {
    make_checkout 'one waits once touch ran; for i in {1..100}; do [[ ! -e build/met ]] || exit 0; sleep 0.1; done; exit 1' \
        'two computes once for i in {1..100}; do [[ ! -e ran ]] || { touch build/met; sleep 1; touch build/over; exit 0; }; sleep 0.1; done; exit 1' \
        'three alone once [[ -e build/over ]]'
    verify
    ends_with 0
}

test_the_table_of_this_tree_is_in_order() {
    "$here/verify.sh" --list >"$work/said"
    while read -r name when counts command; do
        [[ -n $name && $name != '#'* ]] || continue
        [[ $when == @(waits|computes|alone) && $counts == @(once|cases|said|marks) && -n $command ]] ||
            die "the line of '$name' is not in order"
        grep -q "^$name " "$work/said" || die "$name is not listed"
    done <"$here/steps"
}

declare -F "test_$1" >/dev/null || die "there is no case $1"
work=$(mktemp -d)
trap 'rm -rf -- "$work"' EXIT
cd -- "$work"
"test_$1"
