"""The work of mutate.sh: places, changes, builds, runs. Run by it from the root of the tree."""
import concurrent.futures
import filecmp
import os
import pathlib
import random
import re
import resource
import shutil
import signal
import subprocess
import sys
import time

WORK = pathlib.Path("build/mutate").absolute()
TREE, BUILD = WORK / "tree", WORK / "build"
# A change may well delete or overwrite what it should not, and the tests run as root: whatever they write is gone when
# they end.
PRIVATE = """mount -o bind,remount,ro / && mount -o bind,remount,ro /dev && mount -t tmpfs none /tmp &&
             mount -t tmpfs none /dev/shm && exec "$@" """
LEVELS = ["LOG_CONFIG", "LOG_ERROR", "LOG_WARNING", "LOG_INFO", "LOG_DEBUG", "LOG_VERBOSE"]
RELATIONS = ("<", "<=", ">", ">=", "==", "!=")
SWAPS = {"<": ["<=", ">"], "<=": ["<", ">="], ">": [">=", "<"], ">=": [">", "<="], "==": ["!="], "!=": ["=="],
         "+": ["-"], "-": ["+"], "*": ["+"], "/": ["*"], "%": ["/"], "+=": ["-="], "-=": ["+="], "|=": ["&="],
         "&&": ["||"], "||": ["&&"], "|": ["&"], "&": ["|"]}


# --- Places ---------------------------------------------------------------------------------------------------------

TOKENS = re.compile(r'(?P<comment>//[^\n]*|/\*.*?\*/)|(?P<raw>R"\((?:.*?)\)")|(?P<text>"(?:\\.|[^"\\\n])*")'
                    r"|(?P<letter>'(?:\\.[^']*|[^'\\])')", re.S)
# Nothing at run time: what the preprocessor reads, what is asserted while compiling, and va_end, which does nothing.
NO_CODE = re.compile(r"^[ \t]*#(?:[^\n]*\\\n)*[^\n]*|\bstatic_assert\([^;]*;|\bva_end\([^;]*;|\btemplate <[^\n]*", re.M)
# Escapes and conversions stay what they are: the compiler checks the conversions against the arguments.
FIXED = re.compile(r"\\x[0-9a-fA-F]+|\\.|%[-+ 0-9.*]*(?:hh|h|ll|l|z)?[a-zA-Z%]")
STATEMENT = re.compile(r"(?:static_cast<void>\(|\*?[A-Za-z_][\w:.>\[\]()-]*(?: [-+|]?= |\()|(?:\+\+|--)|break;|continue;)")


def blank(mask, start, end):
    for i in range(start, end):
        if mask[i] != "\n":
            mask[i] = " "


def read_code(source):
    """The code with comments and the insides of literals blanked, and the literals as (kind, start, end)."""
    mask, literals = list(source), []
    for token in TOKENS.finditer(source):
        blank(mask, token.start() + (token.lastgroup != "comment"), token.end() - (token.lastgroup != "comment"))
        if token.lastgroup != "comment":
            literals.append((token.lastgroup, token.start(), token.end()))
    for part in NO_CODE.finditer("".join(mask)):
        blank(mask, part.start(), part.end())
    code = "".join(mask)
    return code, [literal for literal in literals if code[literal[1]] != " "]


def closing(code, opening):
    depth = 0
    for i in range(opening, len(code)):
        depth += {"(": 1, ")": -1}.get(code[i], 0)
        if depth == 0:
            return i
    return len(code)


def operators(code):
    for found in re.finditer(r"(?<= )(<=|>=|==|!=|\+=|-=|\|=|&&|\|\||[-<>+*/%|&])(?= |\n)", code):
        sign = found.group()
        kind = "relation" if sign in RELATIONS else "logic" if sign in ("&&", "||") else "arithmetic"
        for swap in SWAPS[sign]:
            yield kind, found.start(), found.end(), [swap]
    for found in re.finditer(r"\+\+|--", code):
        yield "arithmetic", found.start(), found.end(), ["--" if found.group() == "++" else "++"]


def name_before(code, place):
    """The variable that is given its first value at the place."""
    declared = re.search(r"(\w+) = -?$", code[max(0, place - 80):place])
    return (declared.group(1) if declared else "(?!)") + r"\b"


def constants(code):
    for found in re.finditer(r"(?<![\w.])(0[xX][0-9a-fA-F]+|\d+)(?![\w.])", code):
        if re.match(r";[^{}]*?&" + name_before(code, found.start()), code[found.end():]):
            continue  # the first value of what a function then fills in
        octal = re.fullmatch(r"0\d+", found.group())
        value = int(found.group(), 8 if octal else 0)
        changed = [value + 1] + [value - 1] * (value > 0)
        yield "constant", found.start(), found.end(), [f"0{new:o}" if octal else str(new) for new in changed]
    for found in re.finditer(r"\b(true|false)\b", code):
        yield "constant", found.start(), found.end(), ["false" if found.group() == "true" else "true"]


def conditions(code):
    for found in re.finditer(r"\b(?:if|while) \(", code):
        end = closing(code, found.end() - 1)
        yield "condition", found.end() - 1, end + 1, [lambda text: "(!" + text + ")"]
    for found in re.finditer(r"!(?=[\w(*])", code):
        yield "condition", found.start(), found.end(), [""]


def words(code, names):
    """Names of one family, each in place of another: levels and statuses."""
    for found in re.finditer(r"\b(" + "|".join(names) + r")\b", code):
        yield found.start(), found.end(), [name for name in names if name != found.group()]


def statements(code):
    start = depth = 0
    for i, char in enumerate(code):
        depth += {"(": 1, ")": -1}.get(char, 0)
        if depth == 0 and char in ";{}":
            text = code[start:i + 1].lstrip()
            if char == ";" and STATEMENT.match(text) and not text.endswith("= delete;") and "default;" not in text:
                yield "statement", i + 1 - len(text), i + 1, [""]
            start = i + 1


def texts(source, literals):
    for kind, start, end in literals:
        text = source[start:end]
        if kind == "letter":
            if len(text) == 3:
                yield "constant", start, end, ["'" + chr(ord(text[1]) + 1) + "'"]
            continue
        if text.endswith('\\n"'):
            yield "newline", start, end, [text[:-3] + '"']
        first = 3 if kind == "raw" else 1
        fixed = set() if kind == "raw" else {i for part in FIXED.finditer(text) for i in range(*part.span())}
        places = [i for i in range(first, len(text) - first + (kind == "raw")) if i not in fixed and text[i].isalnum()]
        if places:
            yield "text", start, end, [text[:i] + text[i + 1:] for i in places]


def places_in(path):
    source = path.read_text()
    code, literals = read_code(source)
    for kind, *place in [*operators(code), *constants(code), *conditions(code), *statements(code),
                         *texts(source, literals)]:
        yield (path, kind, *place)
    for kind, pattern in [("level", r"LOG_[A-Z]+"), ("level", r"TAVRIX_LOG_[A-Z]+"), ("status", r"TAVRIX_(?:OK|ERR_\w+)"),
                          ("status", r"TAVRIX_(?:VALID|INVALID_\w+)"), ("status", r"TAVRIX_JRPC_[A-Z]\w+")]:
        names = sorted(set(re.findall(r"\b" + pattern + r"\b", code)))
        if pattern.startswith("LOG_"):
            names = LEVELS
        for place in words(code, names) if len(names) > 1 else []:
            yield (path, kind, *place)


# --- Builds and runs ------------------------------------------------------------------------------------------------

def copy_tree():
    """Writes only what differs, so that a second run builds in seconds."""
    listed = subprocess.run(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
                            check=True, capture_output=True, text=True).stdout.split("\0")
    wanted = {pathlib.Path(name) for name in listed if name and os.path.isfile(name)}
    for old in [path for path in TREE.rglob("*") if path.is_file() and path.relative_to(TREE) not in wanted]:
        old.unlink()
    for name in wanted:
        if not (TREE / name).exists() or not filecmp.cmp(name, TREE / name, shallow=False):
            (TREE / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(name, TREE / name)


def configure():
    if shutil.which("ccache"):
        os.environ.update(CMAKE_C_COMPILER_LAUNCHER="ccache", CMAKE_CXX_COMPILER_LAUNCHER="ccache")
    # Programs of the shared library need no new link when only its insides change. The warning about missing
    # parentheses would refuse every exchanged && and ||.
    subprocess.run(["cmake", "--preset", "native", "-S", TREE, "-B", BUILD, "-DCMAKE_BUILD_TYPE=Debug",
                    "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON", "-DCMAKE_C_FLAGS_DEBUG=-O0",
                    "-DCMAKE_CXX_FLAGS_DEBUG=-O0 -Wno-parentheses"], check=True, stdout=subprocess.DEVNULL)


def build(programs):
    return subprocess.run(["ninja", "-C", BUILD, *programs], capture_output=True, text=True)


class Runner:
    """Runs test programs, several at a time, and stops at the first that fails, crashes or hangs."""

    def __init__(self, jobs):
        self.jobs, self.running, self.failed, self.seconds = jobs, set(), None, {}

    def run_one(self, program):
        if self.failed:
            return
        start = time.monotonic()
        path = BUILD / "tests" / ("fault" if program.startswith("fault_") else ".") / program
        process = subprocess.Popen(["unshare", "--mount", "sh", "-c", PRIVATE, "sh", path, "--gtest_fail_fast"],
                                   stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                   start_new_session=True)
        self.running.add(process)
        try:
            result = process.wait(self.limit(program))
        except subprocess.TimeoutExpired:
            result = "hangs"
        self.running.discard(process)
        try:
            os.killpg(process.pid, signal.SIGKILL)  # what a broken change left running too
        except ProcessLookupError:
            pass
        process.wait()
        self.seconds.setdefault(program, time.monotonic() - start)
        if result != 0 and not self.failed:
            self.failed = program + (" (hangs)" if result == "hangs" else "")
            for other in list(self.running):
                other.kill()

    def limit(self, program):
        return 10 + 5 * self.seconds[program] if program in self.seconds else 300

    def run(self, programs):
        """The program that noticed, or None."""
        self.failed = None
        with concurrent.futures.ThreadPoolExecutor(self.jobs) as pool:
            list(pool.map(self.run_one, sorted(programs, key=lambda program: self.seconds.get(program, 0))))
        return self.failed


def own_programs(path, programs, units):
    """The programs of the unit that the file belongs to; none for what all units share."""
    unit = path.stem.removesuffix("_seam")
    longer = [other for other in units if other.startswith(unit + "_")]
    return [program for program in programs if program.startswith("unit_" + unit)
            and not any(program.startswith("unit_" + other) for other in longer)]


# --- The run --------------------------------------------------------------------------------------------------------

class Change:
    """A place with one of its choices drawn."""

    def __init__(self, place, draw):
        self.path, self.kind, start, end, choices = place
        self.before = self.path.read_text()
        choice = draw.choice(choices)
        new = choice(self.before[start:end]) if callable(choice) else choice
        self.after = self.before[:start] + new + self.before[end:]
        first, last = self.before.rfind("\n", 0, start) + 1, self.before.find("\n", end)
        number = self.before.count("\n", 0, start) + 1
        self.heading = f"{self.path.relative_to(TREE)}:{number}: {self.kind}"
        self.lines = self.before[first:last].strip(), (self.before[first:start] + new + self.before[end:last]).strip()


def judge(change, programs, units, runner):
    """The program that notices the change, None when none does, False when the change does not build."""
    own = own_programs(change.path, programs, units)
    change.path.write_text(change.after)
    try:
        for wanted in [own, [program for program in programs if program not in own]]:
            if wanted and build(wanted).returncode != 0:
                return False
            noticed = runner.run(wanted)
            if noticed:
                return noticed
        return None
    finally:
        change.path.write_text(change.before)


def prepare():
    """Builds and runs the unchanged tree; gives the units, the programs and the runner that knows their times."""
    copy_tree()
    configure()
    units = sorted(path.stem for path in (TREE / "src").glob("*.cpp"))
    programs = sorted(f"{path.parent.name}_{path.stem.removesuffix('_test')}"
                      for group in ("unit", "fault") for path in (TREE / "tests" / group).glob("*_test.cpp"))
    built = build(programs)
    if built.returncode != 0:
        sys.exit(built.stdout)
    runner = Runner(2 * os.cpu_count())  # the tests wait more than they work
    if runner.run(programs):
        sys.exit(f"{runner.failed} fails on the unchanged tree")
    return units, programs, runner


def changes(seed, pattern):
    """Every place once, in the seed's order; the pattern leaves those whose heading it matches."""
    draw = random.Random(seed)
    sources = list((TREE / "src").rglob("*.[ch]*"))
    shared = {TREE / name for path in sources for name in re.findall(r'#include "(common/[^"]+)"', path.read_text())}
    places = [place for path in sorted([*sources, *shared]) for place in places_in(path)
              if path.name != "tables.h"]  # it works while the library is compiled
    draw.shuffle(places)
    drawn = (Change(place, draw) for place in places)
    return (change for change in drawn if re.search(pattern, change.heading))


def main():
    seconds, seed, pattern = int(sys.argv[1]), int(sys.argv[2]), sys.argv[3]
    if os.geteuid() != 0:
        sys.exit("run it as root, as the tests are, so that what a change breaks can be kept apart")
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 28, 1 << 28))  # a loop that logs for ever
    units, programs, runner = prepare()
    tried, survivors, end = 0, [], time.monotonic() + seconds
    try:
        for change in changes(seed, pattern):
            if time.monotonic() > end:
                break
            noticed = judge(change, programs, units, runner)
            if noticed is False:
                continue  # the build itself refuses it: another is drawn
            tried += 1
            print(f"{'noticed ' if noticed else 'SURVIVED'} {change.heading} {noticed or ''}", flush=True)
            if noticed is None:
                survivors.append("{}\n    - {}\n    + {}".format(change.heading, *change.lines))
    except KeyboardInterrupt:
        pass
    print(f"\n{tried - len(survivors)} of {tried} noticed, seed {seed}")
    print("\n".join(survivors))


if __name__ == "__main__":
    main()
