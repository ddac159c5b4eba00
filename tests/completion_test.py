#!/usr/bin/env python3
"""The tab key at a real bash and a real zsh completes verbs, options, values, names, versions and paths.

    tests/completion_test.py PROGRAM TREE

A key of each shell inserts every candidate into the line, which is then printed word by word. What they are
is compared with the program's help, so that neither file can offer anything else.
"""

import os
import pathlib
import pty
import re
import select
import shutil
import subprocess
import sys
import tempfile
import time

PATIENCE = 20
EVERYTHING = "\x18a"
TAB = "\t"
PROMPT = "READY>"
BASH = r"""
source {tree}/console/confsave.bash
bind '"\C-xa": insert-completions'
bind 'set enable-bracketed-paste off'
bind 'set bell-style none'
PS1={prompt}
"""
ZSH = r"""
fpath=({tree}/console $fpath)
autoload -Uz compinit
compinit -D -u
zle -C all-matches complete-word _generic
bindkey '^Xa' all-matches
zstyle ':completion:all-matches:*' insert yes
zstyle ':completion:all-matches::::' completer _all_matches _complete
zstyle ':completion:*' prefix-needed {needs_prefix}
unset zle_bracketed_paste
setopt no_beep no_auto_menu no_prompt_cr no_prompt_sp
PS1={prompt}
"""


class Shell:
    """One shell at a terminal."""

    def __init__(self, name, command, environment, setup):
        self.name, self.screen = name, ""
        self.process, self.terminal = pty.fork()
        if self.process == 0:
            os.execvpe(command[0], command, environment)
        # What the terminal shows of the setup has no "READY>" at the beginning of a line.
        self.write(setup.replace("\n", "\r") + "\r")
        self.wait_for(r"(^|\n)READY>$")

    def write(self, text):
        os.write(self.terminal, text.encode())

    def shown(self):
        return re.sub(r"\x1b\[[0-9;?]*[A-Za-z]|\x1b[=>]|[\a\r\0]", "", self.screen)

    def wait_for(self, pattern):
        end = time.monotonic() + PATIENCE
        while not re.search(pattern, self.shown()):
            assert time.monotonic() < end, f"{self.name}: no {pattern!r} in {self.shown()[-2000:]!r}"
            if select.select([self.terminal], [], [], 0.05)[0]:
                self.screen += os.read(self.terminal, 65536).decode("utf-8", "replace")

    def words(self, line, key):
        """The words of the line after the key."""
        self.screen = ""
        # The line becomes the arguments of a program that prints them.
        self.write(line + key + "\x01printf '<%s>' \x05; echo '<''end>'\r")
        self.wait_for(r"<end>\n?(.|\n)*READY>$")
        printed = re.search(r"\n((?:<[^<>\n]*>)+)<end>|\n((?:<[^<>]*>)+)", self.shown())
        return re.findall(r"<([^<>]*)>", printed.group(0).replace("<end>", ""))

    def leave(self):
        self.write("\x15exit\r")
        os.waitpid(self.process, 0)
        os.close(self.terminal)


def offered(shell, line):
    """Every candidate for the last word of the line."""
    before = line.rpartition(" ")[0].split()
    return set(shell.words(line, EVERYTHING)[len(before):])


class Test:
    def __init__(self, program, tree, directory):
        self.program, self.tree, self.root, self.failures = program, tree, pathlib.Path(directory), []
        for name in ("config/user", "config/hub", "state", "tmp", "bin", "home"):
            (self.root / name).mkdir(parents=True)
        (self.root / "bin/confsave").symlink_to(program)
        (self.root / "home/notes.txt").touch()
        self.environment = {
            "PATH": f"{self.root}/bin:/usr/bin:/bin", "HOME": f"{self.root}/home", "TERM": "xterm",
            "LC_ALL": "C.UTF-8", "COLUMNS": "400", "ZDOTDIR": f"{self.root}/home",
            "KELMOR_CONFIG_PATH": f"{self.root}/config/", "KELMOR_DYNAMIC_DIR": f"{self.root}/state",
            "KELMOR_TEMP_DIR": f"{self.root}/tmp", "KELMOR_LOG_FILE": f"{self.root}/log"}
        self.filter = f"{self.root}/config/user/filter.conf"
        self.odd = f"{self.root}/config/user/key_set/a=b:c@d"
        (self.root / "config/user/key_set").mkdir()
        for path in (self.filter, f"{self.root}/config/hub/key", self.odd):
            pathlib.Path(path).write_text("permit\n", encoding="ascii")
        for snapshot in ("weekly", "working", "daily", "daily@4.4.1"):
            self.run("save", snapshot)

    def run(self, *words):
        return subprocess.run([self.program, *words], env=self.environment, check=True, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout

    def shell(self, name, needs_prefix="true"):
        setup = {"bash": BASH, "zsh": ZSH}[name].format(tree=self.tree, prompt="'READ''Y>'",
                                                        needs_prefix=needs_prefix)
        command = {"bash": ["bash", "--norc", "--noprofile", "-i"], "zsh": ["zsh", "-f", "-i"]}[name]
        script = self.root / f"setup.{name}"
        script.write_text(setup, encoding="ascii")
        os.chdir(self.root / "home")
        return Shell(name, command, self.environment, f" . {script}")

    def expect(self, shell, what, expected, seen):
        if expected != seen:
            self.failures.append(f"{shell.name}: {what}: {seen}, not {expected}")

    def completes(self, shell, line, expected):
        """One tab completes the line."""
        self.expect(shell, f"{line!r} and a tab", expected.split(), shell.words(line, TAB))

    def offers(self, shell, line, *expected):
        self.expect(shell, f"what {line!r} offers", set(expected), offered(shell, line))

    def lines(self, shell):
        """What both shells do alike."""
        names = {"weekly", "working", "daily", "daily@4.5.4", "daily@4.4.1"}
        self.completes(shell, "confsave sav", "confsave save")
        self.completes(shell, "confsave load --confirm-w", "confsave load --confirm-within")
        self.completes(shell, "confsave load wor", "confsave load working")
        self.completes(shell, "confsave delete daily@4.4", "confsave delete daily@4.4.1")
        self.completes(shell, f"confsave show weekly --file {self.root}/config/us",
                       f"confsave show weekly --file {self.root}/config/user/")
        self.completes(shell, "confsave export weekly no", "confsave export weekly notes.txt")
        self.completes(shell, "confsave import ", "confsave import notes.txt")
        self.completes(shell, "confsave export weekly ", "confsave export weekly notes.txt")
        self.completes(shell, "confsave export --all no", "confsave export --all notes.txt")
        self.offers(shell, "confsave load -- ", *names)
        self.completes(shell, "confsave help verif", "confsave help verify")
        self.offers(shell, "confsave help l", "list", "load")
        self.offers(shell, "confsave save --type ", "full", "part", "corlu")
        self.offers(shell, "confsave list --sort ", "name", "saved", "loaded", "version")
        self.offers(shell, "confsave load --confirm-within ", "90s", "10m", "2h")
        self.offers(shell, "confsave load daily --version ", "4.5.4", "4.4.1", "none")
        self.offers(shell, "confsave load w", "weekly", "working")
        self.offers(shell, "confsave diff weekly d", *(name for name in names if name[0] == "d"))
        for begun in ("f", "k", "key_set/a=b", "key_set/a=b:c", "key_set/a=b:c@"):
            path = self.filter if begun == "f" else self.odd
            self.completes(shell, f"confsave show weekly --file {self.root}/config/user/{begun}",
                           f"confsave show weekly --file {path}")
        self.offers(shell, f"confsave show weekly --file {self.root}/", self.filter, self.odd,
                    f"{self.root}/config/hub/key")
        verbs = set(re.findall(r"^  ([a-z-]+) ", self.run("--help"), re.M))
        assert len(verbs) > 15, verbs
        self.offers(shell, "confsave ", *verbs)
        for verb in sorted(verbs):
            options = set(re.findall(r"(--[a-z-]+)", self.run(verb, "--help"))) - {"--help"}
            if options:
                self.offers(shell, f"confsave {verb} --", *options)
        return names


def main():
    program, tree = os.path.realpath(sys.argv[1]), os.path.realpath(sys.argv[2])
    with tempfile.TemporaryDirectory() as directory:
        test = Test(program, tree, directory)
        for name in ("bash", "zsh"):
            assert shutil.which(name), f"{name} is missing"
            shell = test.shell(name)
            names = test.lines(shell)
            if name == "zsh":
                test.offers(shell, "confsave load ", *names)
            shell.leave()
        # Neither file has a list of its own.
        for file in ("confsave.bash", "_confsave"):
            text = (pathlib.Path(tree) / "console" / file).read_text(encoding="ascii")
            assert set(re.findall(r"--[a-z-]+", text)) == {"--complete"}, f"{file} names options"
        sys.exit("\n".join(test.failures) or 0)


main()
