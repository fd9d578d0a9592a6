# shellcheck shell=bash disable=SC2154,SC2034
# What every suite of faults owes before it may say that nothing failed: a verdict on each fault that was selected, and
# a good end of each process that it began. Sourced; the script sets `name`, which is its kind, `jobs` and `json`.
#
# A result is a line of JSON: {"kind", "id", "outcome"}, and "why" where there is something to be told. These outcomes
# are no plain successes, whatever else is one:
#
#   failed                 something does not hold, or nobody has said whether it does
#   ok at the second try   it held when it was tried once more, in real time
#   known                  a fault of the system that the documents tell, at the place and with the outcome they tell
#   not reached            the run went another way, and never came to where the fault was to be

# What is drawn by chance is drawn from the commit, so that each one tries something else and can be tried again.
commit_seed() {
    git -C "${BASH_SOURCE[0]%/*}" rev-parse HEAD 2>/dev/null || printf 'no commit\n'
}

# seed_number SEED: for programs that take a number; a number stays what it is.
seed_number() {
    local sum
    [[ ! $1 =~ ^(0|[1-9][0-9]{0,8})$ ]] || { printf '%s\n' "$1" && return; }
    read -r sum _ < <(printf '%s' "$1" | cksum)
    printf '%d\n' $((sum % 1000000 * 100))
}

# in_drawn_order SEED: the lines of standard input, in an order that the seed alone decides.
in_drawn_order() {
    local key
    key=$(printf '%s' "$1" | sha256sum | cut -c 1-32)
    LC_ALL=C sort |
        shuf --random-source=<(openssl enc -aes-128-ctr -nosalt -K "$key" -iv 0 </dev/zero 2>/dev/null || true)
}

# --- results --------------------------------------------------------------------------------------------------------

# begin_results DIRECTORY: what is selected and what came of it is kept there.
begin_results() {
    selected=$1/selected results=$1/results
    : >"$selected"
    : >"$results"
}

# select_id ID...
select_id() {
    printf '%s\n' "$@" >>"$selected"
}

# record ID OUTCOME [WHY]
record() {
    local line
    line=$(jq -cn --arg kind "$name" --arg id "$1" --arg outcome "$2" --arg why "${3-}" \
        '{$kind, $id, $outcome} + if $why == "" then {} else {$why} end')
    append "$results" "$line"
}

# append FILE TEXT: whole, whoever else does it meanwhile.
append() {
    # shellcheck disable=SC2016  # the words of the inner shell
    flock "$1" bash -c 'printf "%s\n" "$2" >>"$1"' bash "$1" "$2"
}

# fail_suite WHY: of no fault in particular. Also where only a child of the script is left to tell it.
fail_suite() {
    append "$selected" suite
    record suite failed "$1"
}

# ids_without_result, ids_without_selection: each as often as it is too many.
ids_without_result() {
    LC_ALL=C comm -23 <(LC_ALL=C sort "$selected") <(jq -r .id "$results" | LC_ALL=C sort)
}

ids_without_selection() {
    LC_ALL=C comm -13 <(LC_ALL=C sort "$selected") <(jq -r .id "$results" | LC_ALL=C sort)
}

require_a_result_each() {
    local missing strange id
    mapfile -t missing < <(ids_without_result)
    mapfile -t strange < <(ids_without_selection)
    for id in "${missing[@]}"; do
        record "$id" failed "nobody has said whether it holds"
    done
    for id in "${strange[@]}"; do
        fail_suite "there is a result of '$id' that was not selected, or one too many"
    done
}

# count_of OUTCOME
count_of() {
    jq -r --arg outcome "$1" 'select(.outcome == $outcome) | .id' "$results" | wc -l
}

# A selection that is not tried is none: a few points may be made superfluous by what other threads do.
require_most_reached() {
    local unreached
    unreached=$(count_of "not reached")
    ((unreached * 10 <= $(wc -l <"$results"))) || fail_suite "$unreached of $(wc -l <"$results") faults were not reached"
}

show_results() {
    jq -r 'select(.outcome == ("failed", "known", "ok at the second try")) |
        "\(if .outcome == "failed" then "FAILED" else .outcome end) --only '\''\(.id)'\'': \(.why)"' "$results"
}

# conclude_results: tells what came of it; fails when a fault, or the suite itself, has.
conclude_results() {
    local all failed second known unreached
    require_a_result_each
    require_most_reached
    [[ -z $json ]] || cp -- "$results" "$json"
    show_results
    all=$(wc -l <"$results") failed=$(count_of failed) second=$(count_of "ok at the second try")
    known=$(count_of known) unreached=$(count_of "not reached")
    printf '%s: selected %d, second try %d, known %d, not reached %d\n' "$name" "$all" "$second" "$known" "$unreached"
    printf '%s: tried %d, ok %d, failed %d\n' "$name" $((all - unreached)) \
        $((all - failed - second - known - unreached)) "$failed"
    ((failed == 0 && all > unreached))
}

# --- children -------------------------------------------------------------------------------------------------------

declare -A children=()  # what each process does

# in_parallel COMMAND...: not more than `jobs` at a time.
in_parallel() {
    while ((${#children[@]} >= jobs)); do
        await_child
    done
    "$@" &
    children[$!]=$*
}

# await_child: the next one that ends. One that ends badly had more to say than it said.
await_child() {
    local child='' status=0
    wait -n -p child "${!children[@]}" || status=$?
    [[ -n $child ]] || { fail_suite "lost sight of ${children[*]}" && children=() && return; }
    ((status == 0)) || fail_suite "exit status $status of: ${children[$child]}"
    unset "children[$child]"
}

await_children() {
    while ((${#children[@]})); do
        await_child
    done
}
