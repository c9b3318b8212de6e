# Holds measurements against goals: awk -v clock=real_time|cpu_time -f judge.awk goals.txt MEASUREMENTS...
# Measurements are files of Google Benchmark (CSV with repetitions; the medians count) or lines "NAME,VALUE". Prints a
# line for every goal; a goal whose measurement is missing or failed makes the exit status 1, one that is not reached
# does not.
#
# On the host the calling thread does all the work of a transfer, so the processor time of a run tells the same as a
# clock, without the moments in which another program had the processor. Runs of several threads wait for each other:
# there, and where a benchmark says so by its name, only the clock counts.

BEGIN { FS = "," }

FNR == 1 { file++; delete column; columns = 0 }

# The goals come first.
file == 1 {
    sub(/#.*/, "")
    if (split($0, word, " ") > 0) goals[++goalCount] = $0
    next
}

{ gsub(/"/, "") }

$1 == "name" {
    for (i = 1; i <= NF; i++) column[$i] = i
    columns = NF
    next
}

columns && $1 ~ /_median$/ {
    name = substr($1, 1, length($1) - length("_median"))
    measured[name] = $(column[name ~ /real_time$|threads:([2-9]|1[0-9])/ ? "real_time" : clock])
    if ($(column["time_unit"]) != "ns") failed[name] = "is not in ns"
    if ("allocations" in column) measured[name ":allocations"] = $(column["allocations"])
}

columns && $(column["error_occurred"]) == "true" { failed[$1] = "failed: " $(column["error_message"]) }

!columns && NF == 2 { measured[$1] = $2 }

function missing(name) {
    if (name in failed) why = failed[name]
    else if (!(name in measured)) why = "was not measured"
    else return 0
    printf "error %s %s\n", name, why
    status = 1
    return 1
}

function verdict(kind, name, value, digits, unit, goal) {
    printf "%s %s %." digits "f%s goal %s%s %s\n", kind, name, value, unit, goal, unit, value <= goal + 0 ? "ok" : "short"
}

END {
    for (g = 1; g <= goalCount; g++) {
        split(goals[g], word, " ")
        if (missing(word[3]) || (word[1] != "value" && missing(word[4]))) continue
        if (word[1] == "ratio")
            verdict("ratio", word[2], measured[word[3]] / measured[word[4]], 4, "", word[5])
        else if (word[1] == "above")
            verdict("value", word[2], measured[word[3]] - measured[word[4]], 1, " " word[6], word[5])
        else
            verdict("value", word[2], measured[word[3]], 1, " " word[5], word[4])
    }
    exit status
}
