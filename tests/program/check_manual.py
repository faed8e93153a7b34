"""check_manual.py ROOT: what the sources let a user give or get is in the manual pages.

Says what is missing there.
"""
import pathlib
import re
import sys

ROOT = pathlib.Path(sys.argv[1])


def read(name):
    return (ROOT / name).read_text(encoding="utf-8")


def found(text, expression, least):
    """What an expression finds in a text whose broken literals are joined."""
    matches = sorted(set(re.findall(expression, re.sub(r'"\s*\n\s*"', "", text))))
    need(len(matches) >= least, f"{len(matches)} found, {least} expected: {expression}")
    return matches


def need(is_there, what):
    if not is_there:
        print(what)


def chapter(kind):
    return re.search(rf"\n\.Ss {re.escape(kind)}:.*?(?=\n\.S)|$", page, re.S).group()


page, conf = read("docs/man/orvscan.1"), read("docs/man/orvscan.conf.5")
items = "\n".join(line for line in (page + conf).split("\n") if ".It " in line)
engine = "".join(path.read_text() for path in sorted(ROOT.glob("orvane/tsanalyze/*.cpp")))
sample = read("docs/orvscan.conf.sample")

for name, letter in found(read("orvane/tsa/options.cpp"),
                          r"""\{"(\w+)", \w+_argument, nullptr, '(.)'\}""", 13):
    need(".It Fl " + letter.replace("?", r"\&?") + " " in items, "-" + letter)
    need("Fl \\-" + name in items, "--" + name)

# Names of -A, words of -k and keys of a settings file: all the words among the literals.
for word in found(read("orvane/tsanalyze/settings.cpp"),
                  r'"(?!yes"|no"|disabled"|tsan_)([a-z_]+)"', 35):
    need(re.search(rf"\b{word}\b", items), word)
for key in found(conf, r"\n\.It Ic (\w+) No\b", 10):
    need(re.search(rf"\n *{key}( =|:)", sample), key + " in the sample")

# A table has a row for each word of the form for scripts, an example all the words.
for kind, fields in found(engine, r'"ALERT ([A-Z]+-[A-Z]+)( %s [^"]*)\\n"', 9):
    need(chapter(kind).count("\n.It ") == 1 + fields.count(" "), kind + " in rows")
for kind in ("AV-DELTA0", "AV-DELTA+"):
    need("\nALERT " + kind in chapter(kind), kind)
for kind, fields in found(engine, r'"STAT ([A-Z][\w-]+)( [^"]*)\\n"', 5):
    examples = re.findall(rf"STAT {kind} .*", page)
    need([line.count(" ") for line in examples] == [1 + fields.count(" ")], "STAT " + kind)
for tag in found(engine, r'log_aval_stats\("([\w-]+)"', 3):
    need("STAT " + tag in items, "STAT " + tag)
for label, end in found(read("orvane/tsanalyze/report.cpp"),
                        r'"(?:\\t)+(?:\+\+ )?([A-Za-z][A-Za-z/ -]*[A-Za-z])(:|  )', 20):
    need(f" {label}{end}" in page, label)

# The page of the engine has its operations, statuses and kinds, and the host it shows.
page_3 = read("docs/man/tsanalyze.3")
header = read("orvane/tsanalyze/include/tsanalyze/tsanalyze.h").replace("TSAN_ALERT_KINDS", "")
for name, _ in found(header, r"\b(tsan_\w+|TSAN_[A-Z]\w+)(\(|,| = -?\d+,)", 35):
    need(re.search(rf"(Fn|Dv) {name}\b", page_3), name)
need(read("examples/minimal_host.c") in page_3, "minimal_host.c")
