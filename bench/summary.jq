# Samples to results: jq -s --slurpfile rows recorded.json -f summary.jq SAMPLES
# A result has the row of recorded.json, "value", and what it was calculated from.

def median: sort | if length == 0 then null else (.[(length - 1) / 2 | floor] + .[length / 2 | floor]) / 2 end;

# Pair by pair: what slows the machine down for a while slows down both of a pair.
def ratios($ours; $theirs): [$ours, $theirs] | transpose | map(select(.[0] != null and .[1] != null) | .[0] / .[1]);

def of_samples($row):
    (map(.ours // empty)) as $ours
    | (map(.theirs // empty)) as $theirs
    | ($ours | if $row.name == "give-up" or $row.name == "memory" then max else median end) as $mine
    | {
        samples: ($ours | length), ours: $mine, theirs: ($theirs | median),
        value: (if $mine == null then null elif $row.unit == "ratio" then ratios($ours; $theirs) | median else $mine end)
    };

. as $samples
| $rows[0]
| map(. as $row | $row + ($samples | map(select(.name == $row.name)) | of_samples($row)))
