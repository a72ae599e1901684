#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <string>
#include <tuple>

#include "support/TemporaryFolder.h"

namespace orvane {
namespace {

constexpr const char* kOrvanectl = "'" ORVANECTL "' --state '%.state' --list '%'";

// The commands run one after the other on the same list. Each row has a command, its exit code and its standard output.
// "%" stands for the path of the list, and "@" for orvanectl with this list.
TEST(ListCommands, ChangeTheListOnlyWhenAllTheirHostsAreGood) {
  const TemporaryFolder folder;
  const std::tuple<const char*, int, const char*> kCases[] = {
      {"block www.Example.com m.example.com", 0, "example.com and its subdomains: blocked\n"},
      {"block other.example a..b 2>&1 | tail -n 1", 0,
       "orvanectl: nothing was changed: 1 of 2 names refused: correct the names above\n"},
      {"block co.uk", 2, ""},
      {"allow co.uk 2>&1 | grep -c -- --exact", 1, "0\n"},
      {"unblock b\u00fccher.example 2>&1 | head -n 1", 0,
       "orvanectl: not on the list: \"b\u00fccher.example (xn--bcher-kva.example)\": see orvanectl list\n"},
      {"block localhost", 2, ""},
      {"block '[::1]' 2>&1 | grep -o 'it is an IP address'", 0, "it is an IP address\n"},
      {"block --exact www.example.com co.uk", 0, "www.example.com: blocked\nco.uk: blocked\n"},
      {"block example.com", 0, "example.com and its subdomains: already on the list\n"},
      {"resume example.com", 0, "example.com and its subdomains: had no suspension\n"},
      {"suspend example.com --for 1d >'%'.out && cut -d ' ' -f 1-6 '%'.out", 0,
       "example.com and its subdomains: not blocked\n"},
      {"list | sed 's/=.*/=/'", 0, "example.com until=\nwww.example.com only\nco.uk only\n"},
      {"suspend example.com --for 1h --until 18:00", 2, ""},
      {"suspend example.com", 2, ""},
      {"--json suspend example.com --until 2020-01-01", 2,
       "{\"error\":\"the time has passed: \\\"2020-01-01\\\": give a future time\"}\n"},
      {"resume example.com none.example", 2, ""},
      {"resume a.m.example.com 2>&1 | grep -o 'to .*'", 0, "to block it again: orvanectl resume example.com\n"},
      {"suspend example.com --all --for 1h 2>&1 | grep -o 'only one of these'", 0, "only one of these\n"},
      {"resume", 2, ""},
      {"list --json | grep -c until", 0, "1\n"},
      {"resume example.com", 0, "example.com and its subdomains: blocked again\n"},
      {"allow x.example.com free.example", 0,
       "x.example.com and its subdomains: allowed\nfree.example and its subdomains: allowed; no line blocks it now\n"},
      {"block --exact free.example; @ block free.example; @ block --exact free.example; @ allow free.example", 0,
       "free.example: blocked, no longer an exception\nfree.example and its subdomains: blocked, now with its "
       "subdomains\nfree.example: blocked, now without its subdomains\n"
       "free.example and its subdomains: allowed; its own line became this exception: to block it again: orvanectl "
       "block free.example\n"},
      {"unblock www.co.uk 2>&1 | head -n 1", 0, "orvanectl: not on the list: \"www.co.uk\": see orvanectl list\n"},
      {"block a.x.example.com", 0,
       "a.x.example.com and its subdomains: blocked; but allowed by the exception \"x.example.com allowed\"\n"},
      {"suspend x.example.com --for 1h", 2, ""},
      {"suspend --all --for 1h | grep -c 'not blocked'", 0, "4\n"},
      {"resume --all >'%'.out && grep -c again '%'.out", 0, "4\n"},
      {"export | '" ORVANECTL "' --list '%.2' import - | sed -n 3p", 0,
       "0 duplicates, 0 skipped (localhost and the like), 0 rejected\n"},
      {"import --replace - </dev/null | sed -n 2p", 0, "0 added, 0 changed, 0 already on the list, 6 removed\n"},
      {"import --undo", 0, "0 sites removed, 6 restored, 0 left alone because you changed them since the import\n"},
      {"import --undo", 2, ""},
      {"import --undo --exact 2>&1 | grep -o 'excludes --undo'", 0, "excludes --undo\n"},
      {"--json import --undo 2>/dev/null | head -c 28", 0, "{\"error\":\"nothing to undo: n"},
      {"export | cmp - '%.2'", 0, ""},
      {"export --hosts | grep -c free.example; @ --json export --hosts | grep -c free.example", 1, "0\n0\n"},
      {"disallow x.example.com free.example", 0,
       "x.example.com and its subdomains: no longer an exception\n"
       "free.example and its subdomains: no longer an exception\n"},
      {"disallow x.example.com", 2, ""},
      {"disallow --from - 2>'%.out' <<'E'\nx.example.com\nE", 0,
       "nothing to change: the group default has none of these exceptions\n"},
      {"unblock a.x.example.com", 0,
       "a.x.example.com and its subdomains: removed from the list; still blocked by the line \"example.com\"\n"},
      {"unblock .m.example.com 2>&1 | head -n 1", 0,
       "orvanectl: not on the list: \"m.example.com\": it is covered by the line \"example.com\": to allow this host: "
       "orvanectl allow m.example.com; to change the whole line, give example.com\n"},
      {"unblock www.example.com", 0,
       "www.example.com: removed from the list; still blocked by the line \"example.com\"\n"},
      {"unblock www.example.com https://m.example.com/ co.uk", 0,
       "example.com and its subdomains: removed from the list\nco.uk: removed from the list\n"},
      {"unblock example.com", 2, ""},
      {"resume --all; @ disallow --all", 0,
       "nothing to change: the group default has no sites\nnothing to change: the group default has no exceptions\n"},
      {"block https://me@pasted.example:8443/page b\u00fccher.example/page", 0,
       "pasted.example and its subdomains: blocked\nb\u00fccher.example (xn--bcher-kva.example) and its subdomains: "
       "blocked\n"},
      {"block --group default pasted.example -- -a.example", 0,
       "pasted.example and its subdomains: already on the list\n-a.example and its subdomains: blocked\n"},
      {"unblock -a.example 2>&1 | grep -o 'write -- before it'", 0, "write -- before it\n"},
      {"export --hosts >'%.3' && seq 30 | sed 's/$/.n.example/' | @ import - | tail -n 1", 0,
       "To take this back: orvanectl import --undo\n"},
      {"suspend --all --until 'tomorrow midnight' 2>&1 </dev/null | grep -o 'several.*: w'", 0,
       "several meanings: \"tomorrow midnight\": w\n"},
      {"list >/dev/null; echo 2 | script -qec \"@ suspend --all --until 'tomorrow midnight'\" /dev/null | grep -o '3. "
       "sites: not'",
       0, "33 sites: not\n"},
      {"resume --all", 0, "33 sites: blocked again\n"},
      {"list >'%.out'; script -qec \"@ suspend --all --until 'tomorrow midnight'\" /dev/null </dev/null | grep -ao "
       "'^orvanectl: several'",
       0, "orvanectl: several\n"},
      {"list >'%.out'; echo 'o.example until=2020-01-01T00:00:00Z' | '" ORVANECTL
       "' --list '%.6' import - >'%.out'; for command in list export '--json export'; do '" ORVANECTL
       "' --list '%.6' $command; done 2>'%.out'",
       0,
       "o.example\no.example\n"
       "[{\"group\":\"default\",\"host\":\"o.example\",\"scope\":\"subdomains\",\"suspended\":false}]\n"},
      {"import --undo | cut -d, -f 1", 0, "30 sites removed\n"},
      {"unblock --from '%.3' | wc -l", 0, "3\n"},
      {"block gone.example; @ unblock --all", 0,
       "gone.example and its subdomains: blocked\ngone.example and its subdomains: removed from the list\n"},
      {"export --json", 0, "[]\n"},
      {"import '%.none'", 1, ""},
      {"import a b 2>&1 | sed -n '1s/.*expected: //p'", 0, "\"b\": see orvanectl import --help\n"},
      {"--json import - <<'E' | grep -o '\"[a-z]*ed[a-zR]*\":[0-9]' | paste -sd' "
       "'\n||a.example^\n||a.example/x^\n127.0.0.1 localhost\nE",
       0, "\"added\":1 \"changed\":0 \"rejected\":0 \"removed\":0 \"skipped\":1 \"skippedRules\":1 \"unchanged\":0\n"},
      {"import --undo >'%.out'; @ group add work", 0, "work: added, without sites\n"},
      {"group add 'no name'", 2, ""},
      {"group add work", 0, "work: unchanged: the group exists already\n"},
      {"group schedule work always", 0, "work: unchanged\n"},
      {"group schedule work 'Mon..Fri 9:00-17:00' Sat | sed -E 's/: (not )?in force until.*//'", 0,
       "work: has a new schedule\n"},
      {"group schedule work Mon-Fri", 2, ""},
      {"group schedule work Mon..Fri 9:00-17:00 2>&1 | head -n 1", 0,
       "orvanectl: several meanings: \"Mon..Fri\" \"9:00-17:00\": for these times on these days, write "
       "'Mon..Fri 9:00-17:00'; otherwise give the times first\n"},
      {"group delay work 15m", 0, "work: a removal or suspension has an effect after 15 min\n"},
      {"group delay work 8d", 2, ""},
      {"group delay work 0 2>&1 | grep -o 'for no delay.*'", 0, "for no delay, write off\n"},
      {"group remove nog 2>&1 | head -n 1", 0,
       "orvanectl: no such group: \"nog\": the list has these: default, work: to add a group: orvanectl group add\n"},
      {"group disable work", 0, "work: disabled; has an effect in 15 min\n"},
      {"lock --group worj --for 1h 2>&1 | head -n 1", 0,
       "orvanectl: no such group: \"worj\": did you mean work? See orvanectl group list\n"},
      {"list", 0,
       "[group work]\nschedule = Mon..Fri 09:00-17:00\nschedule = Sat 00:00-24:00\nenabled = no\ndelay = 15m\n"
       "# The group work: disabled\n"},
      {"block W.example a.example --group work", 0,
       "w.example and its subdomains: blocked; but the group work is disabled\n"
       "a.example and its subdomains: blocked; but the group work is disabled\n"},
      {"allow x.w.example && @ disallow --all", 0,
       "x.w.example and its subdomains: allowed; no line blocks it now; has an effect in 15 min\n"
       "x.w.example and its subdomains: no longer an exception\n"},
      {"allow alone.example --group work", 0, "alone.example and its subdomains: allowed; no line blocks it now\n"},
      {"disallow alone.example --group work >'%.out'; @ block w.example --group play", 2, ""},
      {"list --group default; @ export --group work --hosts", 0, "w.example\na.example\n"},
      {"import - <<'E' | grep -c disabled; @ import --undo | grep -c '^1 site'\nnew.example\n[group "
       "work]\na.example\nE",
       0, "0\n1\n"},
      {"import --group work --replace - </dev/null | tail -n 2 | head -n 1", 0,
       "work: its removed sites stay blocked for 15 min\n"},
      {"import --undo | cut -d, -f 1,2", 0, "0 sites removed, 2 restored\n"},
      {"import - >'%.out' <<'E'; @ import --undo | sed 1d\n[group late]\ndelay = 1h\nl.example\nE", 0,
       "1 group removed or restored\nlate: its removed sites stay blocked for 1 h\n"},
      {"unblock --from - 2>&1 <<'E'\nw.example\nE", 0,
       "orvanectl: skipped: 1 name of standard input that the group default does not have: the group work has 1 of "
       "them: give --group work\n"
       "nothing to change: the group default has none of these sites\n"},
      {"unblock w.example 2>&1 | head -n 1", 0,
       "orvanectl: not on the list: \"w.example\": it is covered by the line \"w.example\" of the group work: give "
       "w.example --group work\n"},
      {"suspend --all --for 1h --group work | grep -c '(1 h 15 min left); has an effect in 15 min'", 0, "2\n"},
      {"suspend --all --until 'in 10 min' --group work", 2, ""},
      {"resume --all --group work >'%.out' && grep -c again '%.out'", 0, "2\n"},
      {"--json resume --all --group work | grep -o '\"heldBack\":\\[[^]]*\\],\"inForce\":null'", 0,
       "\"heldBack\":[{\"by\":\"disabled\",\"group\":\"work\",\"until\":null}],\"inForce\":null\n"},
      {"group enable work >/dev/null; @ group schedule work always >'%.out' && @ block w.example 2>'%.out' && @ "
       "unblock w.example",
       0,
       "w.example and its subdomains: blocked\n"
       "w.example and its subdomains: removed from the list; still blocked by the line \"w.example\" of the group "
       "work\n"},
      {"group schedule work 'Mon..Fri 9:00-17:00' Sat >'%.out' && @ group disable work", 0,
       "work: disabled; has an effect in 15 min\n"},
      {"unblock --all", 0, "nothing to change: the group default has no sites\n"},
      {"unblock w.example a.example --group work", 0,
       "w.example and its subdomains: removed from the list; has an effect in 15 min\n"
       "a.example and its subdomains: removed from the list; has an effect in 15 min\n"},
      {"group show work", 0,
       "work: 0 sites, disabled\n  schedule  Mon..Fri 09:00-17:00\n  schedule  Sat 00:00-24:00\n"
       "  delay     15 min\n"},
      {"export | '" ORVANECTL "' --list '%.4' import - | sed -n 4p", 0, "1 group added or changed\n"},
      {"lock --group work --for 1h", 1, ""},
      {"--json lock --for '2 years'", 2, "{\"error\":\"too long a lock: \\\"2 years\\\": give at most 366 days\"}\n"},
      {"lock", 1, ""},
      {"group remove work | cut -d '(' -f 1", 0,
       "work: removed, with its sites; has no effect until the lock of the group work ends \n"},
      {"group list", 0, "default: 0 sites, in force\n"},
      {"block a.example; mkdir '%.d'; printf 'name: A\ncategory: x\na.example only\nb.example' >'%.d/a.site'", 0,
       "a.example and its subdomains: blocked\n"},
      {"--catalogue '%.d' block --site A c.example", 0,
       "c.example and its subdomains: blocked\nA, 1 host: already on the list\nA, 1 host: blocked\n"},
      {"--catalogue '%.d' block --site b", 2, ""},
      {"--catalogue '%.d' block A 2>&1 | grep -o 'did you mean.*'", 0, "did you mean --site a?\n"},
      {"--catalogue '%.d' try A 2>&1 | grep -o 'did you mean.*'", 0, "did you mean --site a?\n"},
      {"--catalogue '%.d' unblock a 2>&1 | grep -o 'did you mean.*'", 0, "did you mean --site a?\n"},
      {"--json block a --exact | grep -o '\"scope\":\"exact\"'; @ block --json a | grep -o '\"scope\":\"exact\"'; @ "
       "unblock a",
       0, "\"scope\":\"exact\"\n\"scope\":\"exact\"\na: removed from the list\n"},
      {"--catalogue '%.d' suspend --category x --for 1h | cut -d ' ' -f 1-5", 0, "A, 2 hosts: not blocked\n"},
      {"--catalogue '%.d' unblock --site a; @ list", 0, "A, 2 hosts: removed from the list\nc.example\n"},
      {"--catalogue '%.d' sites show a | sed 1d", 0, "  a.example only\n  b.example\n"},
      {"disallow c.example 2>&1 | cut -d : -f 2-", 0,
       " no exception: \"c.example\": it is a blocked site: to remove it: orvanectl unblock c.example\n"
       " nothing was changed: 1 of 1 host not an exception: correct or leave out the hosts above\n"},
      {"group add h; @ allow x.example --group h", 0,
       "h: added, without sites\nx.example and its subdomains: allowed; no line blocks it now\n"},
      {"disallow x.example 2>&1 | head -n 1", 0,
       "orvanectl: no exception: \"x.example\": it is allowed by the exception \"x.example allowed\": to end the "
       "exception: orvanectl disallow x.example --group h\n"},
      {"unblock c.example --group h 2>&1 | head -n 1", 0,
       "orvanectl: not on the list: \"c.example\": it is covered by the line \"c.example\" of the group default: give "
       "c.example --group default\n"},
      {"block .www.o.example >'%.out'; @ block --exact co.uk www.f.example >'%.out'; @ export --hosts >'%.5'; @ "
       "unblock --from '%.5'",
       0,
       "c.example and its subdomains: removed from the list\nwww.o.example and its subdomains: removed from the list\n"
       "co.uk: removed from the list\nwww.f.example: removed from the list\n"},
      {"list 2>&1 >'%.out'; ln -s '%.loop' '%.loop'; '" ORVANECTL
       "' --state '%.loop' --list '%' group list 2>&1 | grep -o 'cannot read'",
       0,
       "orvanectl: cannot show locks and changes without effect yet: no keeper keeps this list: see orvanectl status\n"
       "cannot read\n"},
      {"group disable default >'%.out'; @ list --group h | grep default; @ block d.example >'%.out'; @ --socket "
       "'%.none' try d.example | sed -n 2p; @ unblock d.example >'%.out'; @ group enable default",
       0, "  covered by the line \"d.example\" in the group default, which is disabled\ndefault: enabled: in force\n"},
      {"group add o >'%.out'; @ group disable o >'%.out'; @ group delay o 1h; @ block o.example --group o", 0,
       "o: a removal or suspension has an effect after 1 h\n"
       "o.example and its subdomains: blocked; but the group o is disabled\n"},
      {"block y.example --group h 2>'%.out' >&2; @ group delay h 1h >'%.out'; @ --drop-ins '%.none' --fetched '%.none' "
       "--socket '%.none' keep >'%.out' 2>&1 & echo $! >'%.pid'; until @ lock 2>'%.out'; do sleep 0.1; done",
       0, "no group is locked\n"},
      {"unblock o.example --group o >'%.out' 2>&1; @ list | grep -c 'Still blocked'", 1, "0\n"},
      {"group show o | grep -o 'change of .* effect'", 0, "change of o.example has no effect\n"},
      {"unblock www.o.example --group o 2>&1 | grep -o 'list: .*in '; @ group remove o >'%.out' 2>&1; @ unblock "
       "o.example "
       "--group o 2>&1 | grep -o 'such.*in '; @ list | grep 'group o'",
       0,
       "list: \"www.o.example\": its removal has an effect in \nsuch group: \"o\": its removal has an effect in \n"
       "# The group o: disabled, 2 changes without effect yet, no longer in the list's file\n"},
      {"group delay h off 2>'%.out' | grep -o 'the delay of 1 h counts'", 0, "the delay of 1 h counts\n"},
      {"group disable h 2>'%.out' >&2; @ group enable h 2>'%.out' | grep -o 'h: enabled.*'", 0,
       "h: enabled: in force\n"},
      {"block --exact y.example --group h 2>'%.out' | grep -o 'now.*effect'; @ block --exact y.example --group h "
       "2>'%.out' | grep -o 'already.*effect in'; @ block y.example --group h 2>'%.out' | grep -o 'now.*'",
       0,
       "now without its subdomains; has an effect\nalready on the list; but an earlier change has an effect in\n"
       "now with its subdomains\n"},
      {"suspend y.example --group h --until 'in 10 min'", 2, ""},
      {"suspend y.example --group h --for 10m 2>'%.out' | grep -cE '\\(1 h (9|10) min left'", 0, "1\n"},
      {"--socket '%.none' try y.example | grep -o 'line.* in '; @ --socket '%.none' --json try y.example | grep -o "
       "'\"delay[^}]*\"h\"'; @ group disable h >'%.out' 2>&1; @ --socket '%.none' try e.y.example | grep -o 'by .* in "
       "'; "
       "@ group enable h",
       0,
       "line \"y.example\" of the group h; but an earlier change has an effect in \n\"delay\",\"group\":\"h\"\n"
       "by the line \"y.example\" of the group h; but an earlier change has an effect in \n"
       "not in force yet: h: enabled: in force\n"},
      {"allow z.y.example 2>'%.out' | grep -o 'allowed.*effect'", 0, "allowed; has an effect\n"},
      {"list >'%.out' 2>&1; kill -STOP \"$(cat '%.pid')\"; { sleep 2; kill -CONT \"$(cat '%.pid')\"; } & script -qec "
       "\"'" ORVANECTL "' --state '%.state' --list '%' block slow.example\" /dev/null | grep -ao 'waiting[a-z ]*force' "
       "| sort -u; '" ORVANECTL "' --state '%.state' --list '%' unblock slow.example >'%.out' 2>&1",
       0, "waiting until the list is in force\n"},
      {"list >'%.out' 2>&1; mkdir '%.state.guard.new'", 0, ""},  // now the keeper cannot save the lock
      {"lock --group h --for 1h 2>'%.out' | sed 's/until [^;]*;/until ...;/'", 0,
       "h: locked until ...; until then, 1 suspension has no effect; but its sites are not blocked yet\n"},
      {"status | grep -o 'cannot save.*keeper:'; rmdir '%.state.guard.new'; for i in $(seq 100); do grep -q lockLeft "
       "'%.state.guard' && break; sleep 0.1; done; grep -c lockLeft '%.state.guard'",
       0, "cannot save locks and delays, so they end with the keeper:\n1\n"},
      {"block --exact y.example --group h", 1, ""},
      {"import - >'%.out' 2>&1 <<'E'; @ import --undo 2>'%.out' | cut -d, -f 1\nnew.example\n[group h]\ny.example\nE",
       0, "not in force yet: 1 site removed\n"},
      {"lock --group default; @ --json lock --group default", 0, "default: not locked\n[]\n"},
      {"lock --group none", 2, ""},
      {"group add off >'%.out' 2>&1; @ group disable off >'%.out' 2>&1; @ lock --group off --for 1h 2>'%.out' | cut -d "
       "';' -f 2-",
       0, " but the group off is disabled\n"},
      {"list >'%.out'; for command in status doctor; do '" ORVANECTL "' --state '%.state' --list '%.2' $command 2>&1 | "
       "cut -d : -f 2; done",
       0, " no keeper keeps this list\n no keeper keeps this list\n"},
      {"status | grep -oE 'in force.*|[0-9]+ [a-z]+, [0-9].* now'", 0, "in force.\n1 site, 1 name to block now\n"},
      {"lock --group h | cut -d ' ' -f 1-3; kill \"$(cat '%.pid')\"; while kill -0 \"$(cat '%.pid')\" 2>'%.out'; do "
       "sleep 0.1; done; rm -f '%.state'*",
       0, "h: locked until\n"},
      {"block c.example >'%.out'; echo www.c.example | @ unblock --from -", 0,
       "c.example and its subdomains: removed from the list\n"},
      {"subscribe https://a.example/l --group hh 2>&1 | grep -o 'did you.*?'; @ --fetched '%.none' subscribe "
       "https://a.example/l --group h 2>'%.out'",
       0, "did you mean h?\na-example: subscribed\n"},
      {"block c.example >'%.out'; @ group remove h | sed 's/(.*)//'", 0,
       "h: removed, with its sites; has no effect until the lock of the group h ends ; without the group, these "
       "subscriptions are always in force: a-example\n"},
      {"export >'%.out'; { seq 22 | sed 's/$/..x/'; echo none.example; } >'%.bad.list'; for command in list unblock; "
       "do @ $command --from '%.bad.list' 2>&1 | grep -o '[0-9]* more.*'; done",
       0, "2 more bad lines\n2 more\n"},
      {"list >'%.out'; printf '[group o]\\nr.example\\ndelay = 1h\\nlate.example until=2030-01-01T00:00:00Z\\n' "
       ">'%.bad.list'; @ list --from '%.bad.list' 2>'%.out'",
       0, "[group o]\nr.example\n"},
      // A keeper without an extension. "!" stands for the words "saved, but not in force ..."
      {"--socket '%.none' keep >'%.log' 2>&1 & while ! [ -e '%.state' ]; do sleep 0.02; done\n"
       "for command in 'block d.example' 'unblock d.example' 'suspend c.example --for 1h' "
       "'block c.example' 'group add g' 'import -' 'import --undo' 'lock --for 1h'; "
       "do echo e.example | @ $command 2>&1; done |\n"
       "grep -vE 'may still open|^1 line|^0 dup|take this' |\n"
       "sed 's/until .*;/until;/; s/until [^;]*$/until/' |\n"
       "sed -z 's/orvanectl: saved, but not in force, because the keeper has no connection[^\\n]*\\n/!/g'; kill $!",
       0,
       "!not in force yet: d.example and its subdomains: blocked\n"
       "!not in force yet: d.example and its subdomains: removed from the list\n"
       "!not in force yet: c.example and its subdomains: not blocked until\n"
       "!not in force yet: c.example and its subdomains: blocked again\n"
       "!not in force yet: g: added, without sites\n"
       "!not in force yet: 1 added, 0 changed, 0 already on the list, 0 removed\n"
       "!not in force yet: 1 site removed, 0 restored, 0 left alone because you changed them since the import\n"
       "!default: locked until; but its sites are not blocked yet\n"},
      {"list >'%.out'; '" ORVANECTL "' --state '%.loop' --list '%' group add i 2>'%.out'", 0,
       "perhaps not in force: i: added, without sites\n"},
  };
  for (const auto& [line, code, expected] : kCases) {
    std::string command = std::string("@ ") + line + (code == 0 ? "" : " 2>/dev/null");
    for (size_t at; (at = command.find("@ ")) != std::string::npos;) command.replace(at, 1, kOrvanectl);
    for (size_t at; (at = command.find('%')) != std::string::npos;) command.replace(at, 1, folder.path() / "list");
    std::array<char, 4096> output{};
    FILE* pipe = popen(command.c_str(), "r");
    output[fread(output.data(), 1, output.size() - 1, pipe)] = 0;
    int status = pclose(pipe);
    EXPECT_EQ(WEXITSTATUS(status), code) << line;
    EXPECT_STREQ(output.data(), expected) << line;
  }
}

}  // namespace
}  // namespace orvane
