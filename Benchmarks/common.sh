# Shared by the benchmarks: builds the release, makes a scratch folder, and times commands against each other.
# shellcheck shell=bash
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$root/script/bootstrap" build benchmark
cmake --preset release -S "$root" >/dev/null
cmake --build "$root/build/release" -- --quiet | sed '/^ninja: no work to do\.$/d'
# shellcheck disable=SC2034 # used by those who include this
program=$root/build/release/vintrel-cli

scratch=$(mktemp -d "${BENCH_DIR:-${TMPDIR:-/tmp}}/vintrel-bench.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"
export PATH="$PATH:/usr/sbin:/sbin:/usr/local/sbin:/opt/homebrew/sbin" MTOOLS_SKIP_CHECK=1 LC_ALL=C.UTF-8
rounds=${BENCH_ROUNDS:-7}

# Keeps a ratio of ours to another's for Benchmarks/run, in $BENCH_RATIOS: a line "script/title value", with "-" for all that
# is no letter or digit, and without what stands in brackets.
ratio() { # title, value
    [ -n "${BENCH_RATIOS:-}" ] || return 0
    echo "$(basename "$0")/$(echo "$1" | sed 's/ ([^)]*)//' | tr -cs '[:alnum:]\n' '-' | sed 's/-$//') $2" >>"$BENCH_RATIOS"
}

# The seconds that a command takes, as the fastest and the middle of some rounds. What it wrote to "out" is removed before each.
seconds() { # command…
    local round start
    for ((round = 0; round < rounds; round++)); do
        rm -rf out
        start=$(date +%s%N)
        "$@" >/dev/null 2>&1
        echo $(($(date +%s%N) - start))
    done | sort -n | awk '{ t[NR] = $1 / 1e9 } END { printf "%.3f %.3f\n", t[1], t[int((NR + 1) / 2)] }'
}

# Times two commands, given as the names of functions, and prints how many times as long the second takes as the first.
compare() { # title, ours, theirs
    local ours theirs
    ours=$(seconds "$2")
    theirs=$(seconds "$3")
    printf '%-44s ours %s s, other %s s (fastest, middle): other/ours %s\n' "$1" "$ours" "$theirs" \
        "$(echo "$ours $theirs" | awk '{ printf "%.2f fastest, %.2f middle", $3 / $1, $4 / $2 }')"
    ratio "$1" "$(echo "$ours $theirs" | awk '{ printf "%.3f", $1 / $3 }')"
}

# Times some commands, given as names of functions, in turn, and prints for each the fastest and the middle round, and
# how many times as long as the first of them it takes. What they write is removed before each, and flushed in its time.
race() { # title, function…
    local title=$1 round start name
    shift
    : >times
    for ((round = 0; round < rounds; round++)); do
        for name in "${@:round % $# + 1}" "${@:1:round % $#}"; do # none is always the first
            rm -rf out out.map
            sync -f "$scratch"
            start=$(date +%s%N)
            "$name" >/dev/null 2>&1
            echo "$name $(($(date +%s%N) - start))" >>times
        done
    done
    echo "$title"
    for name; do
        grep "^$name " times | sort -n -k 2 |
            awk '{ t[NR] = $2 / 1e9 } END { printf "%s %.3f %.3f\n", $1, t[1], t[int((NR + 1) / 2)] }'
    done | awk 'NR == 1 { fastest = $2; middle = $3 }
        { printf "  %-20s fastest %6.3f s, middle %6.3f s: %.2f, %.2f\n", $1, $2, $3, $2 / fastest, $3 / middle }'
    keep_ratios "$title" "$@"
}

# The ratios of the fastest rounds in "times" of the first function to each of the others.
keep_ratios() { # title, function…
    local title=$1 ours=$2 other
    shift 2
    for other; do
        ratio "$title $other" "$(sort -n -k 2 times | awk -v ours="$ours" -v other="$other" '
            !($1 in fastest) { fastest[$1] = $2 }
            END { printf "%.3f", fastest[ours] / (fastest[other] == 0 ? 1 : fastest[other]) }')"
    done
}

# The same with the time that the commands take of a processor, their own and the system's for them, which other work
# disturbs less. None of them changes anything.
race_user() { # title, function…
    local title=$1 round name TIMEFORMAT='%3U %3S'
    shift
    : >times
    for ((round = 0; round < rounds; round++)); do
        for name in "${@:round % $# + 1}" "${@:1:round % $#}"; do
            echo "$name $({ time "$name" >/dev/null 2>&1; } 2>&1 | awk '{ printf "%.3f", $1 + $2 }')" >>times
        done
    done
    echo "$title"
    for name; do
        grep "^$name " times | sort -n -k 2 | awk -v name="$name" '{ t[NR] = $2 }
            END { printf "  %-20s fastest %6.3f s, middle %6.3f s\n", name, t[1], t[int((NR + 1) / 2)] }'
    done
    keep_ratios "$title" "$@"
}

# The most memory that a command takes, in KiB.
peak_memory() { # command…
    /usr/bin/time -f %M -o peak "$@" >/dev/null && cat peak
}

# A builder program from the images of the tests and the libraries that the release was built with.
builder() { # name, image of Tests/Images or none
    c++ -std=c++20 -O2 -D_FILE_OFFSET_BITS=64 -I"$root" -I"$root/Sources" -I"$root/Sources/CVintrel/include" -o "$1" \
        "$root/Benchmarks/$1.cpp" ${2:+"$root/Tests/Images/$2.cpp" "$root/Tests/Support/TestSource.cpp"} \
        "$root"/build/release/Sources/{VintrelCore/libVintrelCore,CVintrel/libCVintrel}.a -lutf8proc -lz
}
