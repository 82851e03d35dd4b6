"""How people follow the advice of check: functions that take the advice and carry it out."""

import os
from pathlib import Path

import ctlworld
from ctlworld import POSTFIX, program, run, write


def shell(command):
    run("sh", "-c", command)


def as_it_stands(action):
    shell(action.split(", or ")[0])


def behind(words):
    return lambda action: shell(action.split(words)[1].split(", or ")[0])


def before(words):
    """The command with which the advice begins."""
    return lambda action: shell(action.split(words)[0])


def built_in_one(action):
    shell(action.split(": ")[1].split(" restores ")[0])


def by_hand(*words):
    """What a person does to follow advice that is not a command."""
    return lambda _: run(*map(str, words))


def written(path, text="", mode=0o644):
    return lambda _: write(path, text, mode)


def installed(path):
    return lambda _: program(path, "#!/bin/sh\n")


def stock(name):
    return lambda _: write(POSTFIX / name, (ctlworld.KEPT / "postfix" / name).read_bytes())


def stock_main_cf(_):
    stock("main.cf")(_)
    ctlworld.name_local_domains()


def by_apt_get(packages):
    """The advice as it stands, with an apt-get that brings the program back."""
    def cure(action):
        apt_get = Path("/usr/bin/apt-get")
        os.rename(apt_get, f"{apt_get}.real")
        program(apt_get, f"""#!/bin/sh
            [ "$*" = "install {packages}" ] && mv /usr/sbin/postconf.replaced /usr/sbin/postconf\n""")
        as_it_stands(action)
        os.rename(f"{apt_get}.real", apt_get)
    return cure


def without_its_last_line(path):
    return lambda _: write(path, "".join(Path(path).read_text().splitlines(True)[:-1]))
