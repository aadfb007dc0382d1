# What the commands in tests/transcripts/Tool*.txt are made of. The test sets `tool` and `libraries`, the folder of those.
set -o pipefail
morun() { "${tool[@]}" "$@"; }

# Calls of the platform that a refusal comes too late for show.
refused() { PARLO_TRACE=1 morun "$@"; }

# A .npy file of the version in $1 with this dictionary alone.
dictionary() {
  perl -e '($version, $text) = @ARGV; print "\x93NUMPY", chr $version, "\0", pack($version == 1 ? "v/a*" : "V/a*", $text)' "$@"
}

# A .npy file: type, with F behind it in Fortran order; shape; values, halves by their patterns. VERSION in the environment.
npy() {
  local type=${1%F} order=False
  [ "$type" = "$1" ] || order=True
  dictionary "${VERSION-1}" "{'descr': '$type', 'fortran_order': $order, 'shape': $2, }"
  perl -e '$type = shift; $type =~ /^(.)f(.)/; print pack({2 => "S", 4 => "f", 8 => "d"}->{$2} . ($1 eq ">" ? ">" : "<") . "*", map { /^0x/ ? hex : $_ } @ARGV)' "$type" "${@:3}"
}
zeros() { head -c "$1" /dev/zero; }

# The values of a result, one line of them for each row of so many.
values() { od -A n -v -t f4 -w"$((4 * $2))" -j 128 "$1" | sed -E 's/ +/ /g'; }

# What the rows of an activation give with w.npy.
product_of() {
  npy "$@" >x.npy
  morun mm x.npy w.npy -o y.npy >report && grep shape report && values y.npy 1
}
# What is said of a product of two rows by one weight, of this kind.
check() {
  npy '<f4' '(2, 1)' "$1" "$2" >x.npy
  npy '<f4' '(1, 1)' "$3" >w.npy
  morun mm x.npy w.npy -o y.npy --check --weights "$4" >report && sed -n '/check/,$p' report
}

# Ends a product by signals once the temporary file of its result is there.
end_by_signals() {
  env --default-signal=INT "${tool[@]}" mm x.npy i.npy -o old.npy --repeat 100000000 >/dev/null &
  until [ -n "$(find . -name '.morun.*')" ]; do sleep 0.01; done
  for signal in "$@"; do kill -s "$signal" $!; done
  wait $! 2>/dev/null
}

# The nth allocation of memory fails. Told is what the tool says then, which is all that it is to say.
want_of_memory() {
  local nth=$1
  export ASAN_OPTIONS=verify_asan_link_order=0:${ASAN_OPTIONS-}
  LD_PRELOAD=$libraries/liballocation_shim.so MORUN_FAIL_ALLOCATION=$nth "${tool[@]}" "${@:2}" 2>&1 >/dev/null | grep '^morun'
}

# A .npy file of whole numbers, so many rows and columns of so many levels, which quantise with a scale of exactly 1: each
# column has the lowest and the highest level; even ones have negative numbers, too.
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
