"""What both browser drivers share: their one-line JSON reports and a look at other processes."""
import json


def emit(kind, **fields):
    print(json.dumps(dict(t=kind, **fields), separators=(",", ":"), ensure_ascii=False), flush=True)


def stat_fields(pid):
    """The fields of /proc/<pid>/stat after the command name (state first), or None when gone."""
    try:
        with open("/proc/%s/stat" % pid) as stat:
            return stat.read().rpartition(")")[2].split()
    except OSError:
        return None


def running(pid):
    fields = stat_fields(pid)
    return fields is not None and fields[0] != "Z"
