# The words that the commands in tests/transcripts/Tool*.txt and RefusedPackings.txt use. The test of the tool sets `tool`,
# the command that starts the tool, and `libraries`, the folder of its libraries.
completion=${BASH_SOURCE%/*}/../tools/morun/completion.bash
set -o pipefail
profiles=$(dirname "${BASH_SOURCE[0]}")/../platform/emulator/profiles
morun() { "${tool[@]}" "$@"; }

# Prints how bash completes the last of the given words of a command line.
completions() {
  . "$completion"
  COMP_WORDS=(morun "$@") COMP_CWORD=$# COMPREPLY=()
  compopt() { :; }  # works only while bash itself completes
  _morun
  printf '%s\n' "${COMPREPLY[@]}" | LC_ALL=C sort | paste -sd'|'
}

# Runs a command that the tool has to refuse before it calls the platform. A refusal that comes later prints those calls.
refused() { PARLO_TRACE=1 morun "$@"; }

# Prints a .npy file without values: format version $1, dictionary $2.
dictionary() {
  perl -e '($version, $text) = @ARGV; print "\x93NUMPY", chr $version, "\0", pack($version == 1 ? "v/a*" : "V/a*", $text)' "$@"
}

# Prints a .npy file. Arguments: the type, with an F behind it for Fortran order; the shape; the values, where 0x... is a
# half by its bit pattern. VERSION in the environment sets the format version.
npy() {
  local type=${1%F} order=False
  [ "$type" = "$1" ] || order=True
  dictionary "${VERSION-1}" "{'descr': '$type', 'fortran_order': $order, 'shape': $2, }"
  perl -e '$type = shift; $type =~ /^(.)f(.)/; print pack({2 => "S", 4 => "f", 8 => "d"}->{$2} . ($1 eq ">" ? ">" : "<") . "*", map { /^0x/ ? hex : $_ } @ARGV)' "$type" "${@:3}"
}
# Prints a .safetensors file: the header $1, and the standard input as the data.
safetensors() { perl -e 'print pack("Q</a*", shift)' "$1" && cat; }
zeros() { head -c "$1" /dev/zero; }

# Prints the values of the f32 file $1, $2 values a line.
values() { od -A n -v -t f4 -w"$((4 * $2))" -j 128 "$1" | sed -E 's/ +/ /g'; }

# Multiplies an activation, which is given as for npy, by w.npy. Prints shape and values of the product.
product_of() {
  npy "$@" >x.npy
  morun mm x.npy w.npy -o y.npy >report && grep shape report && values y.npy 1
}
# Multiplies an activation of two rows, $1 and $2, by the weight $3 of form $4. Prints what --check reports.
check() {
  npy '<f4' '(2, 1)' "$1" "$2" >x.npy
  npy '<f4' '(1, 1)' "$3" >w.npy
  morun mm x.npy w.npy -o y.npy --check --weights "$4" >report && sed -n '/check/,$p' report
}

# Ends a running product by signals as soon as the temporary file of its result exists.
end_by_signals() {
  local status
  ulimit -c 0
  env --default-signal=INT,QUIT "${tool[@]}" mm x.npy i.npy -o old.npy --repeat 100000000 >/dev/null 2>said &
  until [ -n "$(find . -name '.morun.*')" ]; do sleep 0.01; done
  for signal in "$@"; do kill -s "$signal" $!; done
  wait $! 2>/dev/null
  status=$?
  sed '/^qemu: uncaught target signal/d' said >&2  # an emulated processor tells the end of its program
  rm said
  return $status
}

# Runs the tool while allocation $1 of memory fails, and prints its error messages.
want_of_memory() {
  local nth=$1
  export ASAN_OPTIONS=verify_asan_link_order=0:${ASAN_OPTIONS-}
  LD_PRELOAD=$libraries/liballocation_shim.so MORUN_FAIL_ALLOCATION=$nth "${tool[@]}" "${@:2}" 2>&1 >/dev/null | grep '^morun'
}

# Prints a .npy file of type $1 with $2 rows and $3 columns of whole numbers, which quantise to $4 levels with a scale of
# exactly 1. Each column has the lowest and the highest level; even columns have negative numbers, too.
levels() {
  perl -e '($type, $n_row, $n_col, $n) = @ARGV;
    sub half {
      my ($x, $e) = (abs $_[0], 0);
      ++$e while $x >= 2 ** ($e + 1);
      return $x == 0 ? 0 : ($_[0] < 0) << 15 | $e + 15 << 10 | ($x / 2 ** $e - 1) * 1024;
    }
    for $r (0 .. $n_row - 1) {
      for $c (0 .. $n_col - 1) {
        $x = ($r == 0 ? 0 : $r == 1 ? $n - 1 : ($r * 37 + $c * 11) % $n) - ($c % 2 ? 0 : $n / 2);
        print $type eq "<f2" ? half($x) : $x, "\n";
      }
    }' "$@" >levels.txt
  npy "$1" "($2, $3)" $(<levels.txt)
  rm levels.txt
}

# Runs the tool on a DSP with a fault: its class and status, the method, which call of the method, the command line.
faulty() {
  printf '{"fault": {"class": "%s", "status": %s, "method": "%s", "nth": %s, "errno": 5}}' "${@:1:4}" >fault.json
  PARLO_PROFILE=fault.json morun "${@:5}"
}

# Prints what the emulated platform says of a profile.
profile() {
  printf %s "$1" >profile.json
  PARLO_PROFILE=profile.json morun hello 2>&1 | sed -n 's/.*PARLO_PROFILE=profile.json: //p'
  rm profile.json
}

# Counts the events of a timeline by their phase and name, after checking that each span of a track ends before the next
# one begins or contains it, and that each flow has its two ends on two tracks.
events() {
  python3 -c 'import collections, json, sys
events = json.loads(sys.stdin.read())
ends = collections.defaultdict(list)
for e in sorted((e for e in events if e["ph"] == "X"), key=lambda e: (e["ts"], -e["dur"])):
    track, end = ends[e["pid"], e["tid"]], e["ts"] + e["dur"]
    while track and track[-1] <= e["ts"] + 0.01:
        track.pop()
    assert not track or end <= track[-1] + 0.01, e
    track.append(end)
flows = [{(e["pid"], e["tid"], e["id"]) for e in events if e["ph"] == phase} for phase in "sf"]
assert sorted(i for _, _, i in flows[0]) == sorted(i for _, _, i in flows[1]) and not flows[0] & flows[1]
assert [e for e in events if e["name"] == "shared memory"][-1]["args"]["bytes"] == int(sys.argv[2])
counts = collections.Counter(e["ph"] + " " + e["name"] for e in events if e["ph"] != "s" and e["ph"] != "f")
print(*(f"{n} x {name}" for name, n in sorted(counts.items()) if sys.argv[1] in name or name[0] == "M"), sep="\n")' "$@"
}
