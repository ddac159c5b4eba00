"""What a restore of a stored snapshot has to leave, from the bytes of its archives alone."""

import dataclasses
import grp
import io
import pwd
import tarfile

from trees import DIRECTORY, FILE, LINK, Look, parents, summary

DATABASE = ["user/config.db-journal", "user/config.db", "user/config.idx"]
CORLU = 3


@dataclasses.dataclass(frozen=True, eq=False)
class Wanted(Look):
    """One file; two paths with the same object are linked hard."""


# A directory that is no member: it stays as it is, and where it is missing it is made.
IMPLICIT = "implicit"


def normalize(name):
    return "/".join(part for part in name.split("/") if part not in ("", "."))


def id_of(name, number, look_up):
    """A name counts more than the number, if this machine knows it."""
    try:
        return look_up(name) if name else number
    except KeyError:
        return number


def seconds(info):
    text = info.pax_headers.get("mtime")
    if text is None:
        return int(info.mtime // 1)
    whole, _, fraction = text.partition(".")
    return int(whole) - (1 if whole.startswith("-") and fraction.strip("0") else 0)


def file_of(archive, info):
    kind = DIRECTORY if info.isdir() else LINK if info.issym() else FILE
    content = ""
    if kind == FILE:
        content = summary(archive.extractfile(info).read())
    elif kind == LINK:
        content = info.linkname
    return Wanted(kind, 0 if kind == LINK else info.mode & 0o7777,
                  id_of(info.uname, info.uid, lambda name: pwd.getpwnam(name).pw_uid),
                  id_of(info.gname, info.gid, lambda name: grp.getgrnam(name).gr_gid),
                  0 if kind == DIRECTORY else seconds(info), content)


def members(packed):
    """Each path and what it is to be, without those that are never restored."""
    found = {}
    with tarfile.open(fileobj=io.BytesIO(packed), mode="r:gz", errors="surrogateescape") as archive:
        for info in archive:
            # For some sparse files tarfile returns the name that older tools use.
            path = normalize(info.pax_headers.get("GNU.sparse.name", info.name))
            if info.islnk():
                found[path] = found[normalize(info.linkname)]
            else:
                found[path] = file_of(archive, info)
    return {path: what for path, what in found.items()
            if path and not path.startswith(".") and "corlu.serv" not in path.split("/")}


def wanted(row, in_target):
    """By directory ("config", "etc" or "target") and path. The row is (type, keybase, etc)."""
    kind, keybase, etc = row
    result = {}
    if kind != CORLU:
        result["target" if in_target else "etc"] = members(etc)
    result.setdefault("target" if in_target else "config", {}).update(members(keybase))
    return result


def drop_below(tree, path):
    for other in [other for other in tree if other.startswith(path + "/")]:
        del tree[other]


def after(before, files, has_database):
    """What each path of a directory is after the restore: a Seen or Wanted, or IMPLICIT."""
    result = dict(before)
    for path in DATABASE if has_database else ():
        result.pop(path, None)
    for path in sorted(files):
        for parent in parents(path):
            if getattr(result.get(parent), "kind", parent) not in (DIRECTORY, IMPLICIT):
                result[parent] = IMPLICIT
        if files[path].kind != DIRECTORY:
            drop_below(result, path)
        result[path] = files[path]
    return result
