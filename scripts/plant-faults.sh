#!/usr/bin/env bash
# Plants the faults of scripts/faults.txt one at a time in a scratch copy of the tree, builds,
# runs the test suite and reports which tests caught each fault. The developer's own tree is
# never modified: the copy lives in build-faults/ (git-ignored) and is brought up to date with
# the working tree (tracked and untracked files, as they are now) at every start, so that only
# what changed is rebuilt.
#
#   scripts/plant-faults.sh                 every fault
#   scripts/plant-faults.sh ID...           only these (one id: a single fault)
#   scripts/plant-faults.sh --list          ids, modules and descriptions
#   scripts/plant-faults.sh --check [ID...] only check that every snippet occurs exactly once
#   options:  -o FILE       also write the table to FILE
#             --no-clean    skip the run of the unmodified tree (its failures are then unknown)
#             --faults FILE another fault list
#   environment: FAULTS_DIR (scratch, default build-faults), JOBS (default 2),
#                CTEST_ARGS (default: -LE 'slow|stress' --timeout 120)
#
# A fault is "caught" when a test fails that passed on the unmodified copy, and "MISSED" when
# none does. A fault whose copy does not build is reported as not valid: a fault must compile
# to say anything about the tests. The script stops at once, naming the fault, when a
# snippet is not found exactly once, so the list cannot quietly go stale.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
faults_file=$root/scripts/faults.txt
scratch=${FAULTS_DIR:-$root/build-faults}
jobs=${JOBS:-2}
ctest_args=${CTEST_ARGS:-"-LE slow|stress --timeout 120"}
out_file=
clean=1
mode=run
ids=()
while [ $# -gt 0 ]; do
  case $1 in
    --list) mode=list ;;
    --check) mode=check ;;
    --no-clean) clean=0 ;;
    -o) out_file=$2; shift ;;
    --faults) faults_file=$(realpath "$2"); shift ;;
    -h|--help) sed -n '2,/^[^#]/{/^#/s/^# \{0,1\}//p}' "$0"; exit 0 ;;
    -*) echo "unknown option $1" >&2; exit 2 ;;
    *) ids+=("$1") ;;
  esac
  shift
done

# The fault list's parser and the substitution, in Perl (always there on Debian).
#   list FAULTS [ID...]           id<TAB>file<TAB>what per fault, in file order
#   apply FAULTS ID TREE          plants fault ID in TREE
#   check FAULTS TREE [ID...]     checks the snippets against TREE, changes nothing
faults_pl='
use strict; use warnings;
sub parse {
  my ($path) = @_;
  open(my $fh, "<", $path) or die "cannot read $path: $!\n";
  my (@faults, $cur);
  my $line_no = 0;
  my $finish = sub {
    return unless $cur;
    for my $k (qw(id file what old)) {
      die "$path: record ending at line $line_no has no $k:\n" unless defined $cur->{$k};
    }
    $cur->{new} //= "";
    die "$path: duplicate id $cur->{id}\n" if grep { $_->{id} eq $cur->{id} } @faults;
    push @faults, $cur; undef $cur;
  };
  while (my $l = <$fh>) {
    $line_no++;
    chomp $l;
    next if $l =~ /^#/;
    if ($l =~ /^\s*$/) { $finish->(); next; }
    $l =~ /^(id|file|what|old|new):(?: (.*))?$/ or die "$path:$line_no: cannot read: $l\n";
    my ($k, $v) = ($1, $2 // "");
    $cur //= {};
    if ($k eq "old" || $k eq "new") {
      $cur->{$k} = defined $cur->{$k} ? "$cur->{$k}\n$v" : $v;
    } else {
      die "$path:$line_no: second $k: in one record\n" if defined $cur->{$k};
      $cur->{$k} = $v;
    }
  }
  $finish->();
  return @faults;
}
sub pick {
  my ($all, @ids) = @_;
  return @$all unless @ids;
  my @out;
  for my $id (@ids) {
    my ($f) = grep { $_->{id} eq $id } @$all;
    die "no fault with id $id\n" unless $f;
    push @out, $f;
  }
  return @out;
}
sub occurrences {
  my ($text, $snippet) = @_;
  my ($n, $at) = (0, 0);
  while ((my $i = index($text, $snippet, $at)) >= 0) { $n++; $at = $i + 1; }
  return $n;
}
sub slurp {
  my ($path) = @_;
  open(my $fh, "<", $path) or die "cannot read $path: $!\n";
  local $/; my $t = <$fh>; return $t;
}
my ($cmd, $path, @rest) = @ARGV;
my @all = parse($path);
if ($cmd eq "list") {
  print "$_->{id}\t$_->{file}\t$_->{what}\n" for pick(\@all, @rest);
} elsif ($cmd eq "check" || $cmd eq "apply") {
  my $tree = $cmd eq "apply" ? $rest[1] : shift @rest;
  my @which = $cmd eq "apply" ? pick(\@all, $rest[0]) : pick(\@all, @rest);
  my $bad = 0;
  for my $f (@which) {
    my $file = "$tree/$f->{file}";
    my $text = -f $file ? slurp($file) : undef;
    my $n = defined $text ? occurrences($text, $f->{old}) : 0;
    if (!defined $text) {
      print STDERR "fault $f->{id}: $f->{file} does not exist\n"; $bad++; next;
    }
    if ($n != 1) {
      print STDERR "fault $f->{id}: the snippet occurs $n times in $f->{file}, not once:\n$f->{old}\n";
      $bad++; next;
    }
    next unless $cmd eq "apply";
    my $i = index($text, $f->{old});
    substr($text, $i, length $f->{old}) = $f->{new};
    open(my $fh, ">", $file) or die "cannot write $file: $!\n";
    print $fh $text; close $fh or die "cannot write $file: $!\n";
  }
  exit($bad ? 1 : 0);
} else {
  die "unknown command $cmd\n";
}
'
faults() { perl -e "$faults_pl" "$@"; }

module_of() {
  case $1 in
    snmp/lib/*) echo snmp/lib ;;
    snmp/dpisa/*) echo snmp/dpisa ;;
    snmp/daemon/*) echo snmp/daemon ;;
    *) echo other ;;
  esac
}

mapfile -t records < <(faults list "$faults_file" "${ids[@]}")
if [ "$mode" = list ]; then
  for r in "${records[@]}"; do
    IFS=$'\t' read -r id file what <<< "$r"
    printf '%-28s %-12s %s\n' "$id" "$(module_of "$file")" "$what"
  done
  exit 0
fi
if [ "$mode" = check ]; then
  faults check "$faults_file" "$root" "${ids[@]}"
  echo "${#records[@]} faults: every snippet occurs exactly once"
  exit 0
fi

# ---- the scratch copy ----

src=$scratch/src
build=$scratch/build
logs=$scratch/logs
mkdir -p "$src" "$build" "$logs"
sync_tree() {
  local f
  local -A keep=()
  while IFS= read -r -d '' f; do
    [ -f "$root/$f" ] || continue
    keep[$f]=1
    if ! cmp -s "$root/$f" "$src/$f"; then
      mkdir -p "$(dirname "$src/$f")"
      cp "$root/$f" "$src/$f"
    fi
  done < <(git -C "$root" ls-files -z --cached --others --exclude-standard)
  # Files gone from the working tree go from the copy too.
  while IFS= read -r -d '' f; do
    f=${f#"$src"/}
    [ -n "${keep[$f]:-}" ] || rm -f "$src/$f"
  done < <(find "$src" -type f -print0)
}
sync_tree
# What was tested, said when the copy is taken: the tree may change while the faults run.
tested_tree="tree $(git -C "$root" rev-parse --short HEAD)"
git -C "$root" diff --quiet HEAD || tested_tree="$tested_tree plus uncommitted changes"
# Every snippet is checked before anything is built, so a stale list fails in seconds.
faults check "$faults_file" "$src" "${ids[@]}"

cmake -S "$src" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=g++ \
      -DCMAKE_C_COMPILER=gcc -DVARNEX_BENCH=OFF > "$logs/configure.log"

# Builds the copy and runs the suite; sets `failed` to the names of the failing tests.
# Returns 1 when the build fails.
failed=()
build_and_test() {
  local name=$1
  failed=()
  if ! cmake --build "$build" -j "$jobs" > "$logs/$name.build.log" 2>&1; then
    return 1
  fi
  rm -f "$build/Testing/Temporary/LastTestsFailed.log"
  # shellcheck disable=SC2086  # CTEST_ARGS is a list of words
  ctest --test-dir "$build" -j "$jobs" $ctest_args > "$logs/$name.test.log" 2>&1 || true
  if [ -f "$build/Testing/Temporary/LastTestsFailed.log" ]; then
    mapfile -t failed < <(sed 's/^[0-9]*://' "$build/Testing/Temporary/LastTestsFailed.log")
  fi
  return 0
}

declare -A failed_clean=()
if [ "$clean" = 1 ]; then
  echo "unmodified copy: building and running the suite..."
  if ! build_and_test clean; then
    echo "the unmodified copy does not build; see $logs/clean.build.log" >&2
    exit 1
  fi
  for t in "${failed[@]}"; do failed_clean[$t]=1; done
  if [ ${#failed[@]} -gt 0 ]; then
    echo "failing without any fault (not counted as catches): ${failed[*]}"
  else
    echo "unmodified copy: all tests pass"
  fi
fi

# The planted file is put back even when the script is interrupted.
planted=
restore() {
  if [ -n "$planted" ]; then
    cp "$root/$planted" "$src/$planted" 2>/dev/null || git -C "$root" show "HEAD:$planted" > "$src/$planted"
    planted=
  fi
}
trap restore EXIT
trap 'exit 130' INT TERM

table=()
caught=0 missed=0 invalid=0
header=$(printf '%-28s | %-11s | %-88s | %s' id module description result)
echo
echo "$header"
for r in "${records[@]}"; do
  IFS=$'\t' read -r id file what <<< "$r"
  module=$(module_of "$file")
  started=$SECONDS
  # The copy of the file is the working tree's; put it back first in case it was changed.
  cp "$root/$file" "$src/$file"
  planted=$file
  faults apply "$faults_file" "$id" "$src"
  if build_and_test "$id"; then
    new=()
    for t in "${failed[@]}"; do
      [ -n "${failed_clean[$t]:-}" ] || new+=("$t")
    done
    if [ ${#new[@]} -gt 0 ]; then
      shown=$(printf '%s, ' "${new[@]:0:3}")
      shown=${shown%, }
      [ ${#new[@]} -le 3 ] || shown="$shown, ..."
      result="caught (${#new[@]}): $shown"
      caught=$((caught + 1))
    else
      result="MISSED"
      missed=$((missed + 1))
    fi
  else
    result="not a valid fault: the build fails (see $logs/$id.build.log)"
    invalid=$((invalid + 1))
  fi
  restore
  line=$(printf '%-28s | %-11s | %-88s | %s' "$id" "$module" "$what" "$result")
  table+=("$line")
  printf '%s   [%ds]\n' "$line" $((SECONDS - started))
done

summary="$caught caught, $missed missed, $invalid not valid, of ${#records[@]} faults"
echo
echo "$summary"
if [ -n "$out_file" ]; then
  {
    echo "# Planted faults against the test suite ($(date -u +%Y-%m-%d), $tested_tree)"
    echo "# suite: ctest $ctest_args -j $jobs; caught = tests that failed with the fault and pass without it"
    echo "$header"
    printf '%s\n' "${table[@]}"
    echo
    echo "$summary"
  } > "$out_file"
  echo "table written to $out_file"
fi
