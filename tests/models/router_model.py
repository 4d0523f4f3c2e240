"""A model of the router: what the stored configuration, access lists and namespaces make of files, servers and rules."""

import copy

import lines
import rule_files
import settings
from rule_files import ALL, NETCONF_IPV4, NETCONF_IPV6, SSH_IPV4, SSH_IPV6
from settings import CHANGED, CREATED, DELETED

SERVER = "/cfg/gl/crypto/ssh/server/"
CLIENT = "/cfg/gl/crypto/ssh/client/"
FIPS = "/cfg/gl/crypto/fipsmode/value"
MOTD, LOGIN = "/cfg/gl/banner/0x2", "/cfg/gl/banner/0x3"
AAA = "/cfg/gl/aaa/banner/0x0"

FOLDER = "/var/opt/norvo/norvossh/"
DEFAULT_FILE = FOLDER + "sshd_config"
CLIENT_FILE = FOLDER + "ssh_config"
UNITS = "/etc/systemd/system/"
NETCONF_LINE = ("Subsystem netconf", "/pkg/bin/netconf_sshd_proxy -i 0 -o 1")
# The lines that only a VRF's file has.
OWN = ["Port 22", "Port 830", " ".join(NETCONF_LINE)]

# Items without an effect on this machine's files.
WITHOUT_EFFECT = {"cmn/v1", "cmn/capability/netconf-xml", "sshd/netconf", "v1", "vrf", "source", "portnvrf"}

UNIT = """[Unit]
Description=NorvoSSH sshd service
#Restricting respawn count to 5 with a time interval of 20 seconds
StartLimitIntervalSec=20
StartLimitBurst=20

[Service]
Type=simple
SELinuxContext=system_u:system_r:initrc_t:s0
EnvironmentFile={environment}
ExecStart=/sbin/ip $ARG1 $ARG2 $ARG3 $ARG4 $ARG5 $ARG6 $ARG7 $ARG8
ExecStop=/bin/kill -s TERM $MAINPID
ExecReload=/bin/kill -s HUP $MAINPID
KillMode=process
Restart=on-failure
RestartSec=2

[Install]
WantedBy=multi-user.target
"""
ENVIRONMENT = """ARG1=netns
ARG2=exec
ARG3=vrf-{vrf}
ARG4=/pkg/bin/sshd
ARG5=-f
ARG6={file}
ARG7=-v
ARG8={number}
PATH=/pkg/sbin:/pkg/bin:/usr/local/sbin:/usr/sbin:/sbin:/usr/local/bin:/usr/bin:/bin
LD_LIBRARY_PATH=/pkg/lib/override:/pkg/lib:/pkg/lib/cerrno:/pkg/lib/mib:/pkg/lib/spp_plugins:/pkg/thirdparty_lib/lib64:\
/pkg/thirdparty_lib/lib:/pkg/thirdparty_lib/usr/lib64:/pkg/thirdparty_lib:/usr/lib
"""
PAM_FILE = "/etc/pam.d/norvosshd"
PAM = """#PAM file for norvosshd

auth sufficient libqd_aaa_pam.so
account sufficient libqd_aaa_pam.so
session sufficient libqd_aaa_pam.so

"""


class Vrf:
    """What the agent keeps about a VRF with a server."""

    def __init__(self, name):
        self.name = name
        self.count = 1
        self.has_netconf = False
        self.lists = [""] * 4
        self.was_started = False

    @property
    def file(self):
        return FOLDER + "sshd_config_" + self.name


class Router:
    """The model. `numbers` are the VRFs' numbers, which the platform chooses."""

    def __init__(self):
        self.stored = {}
        self.access_lists = {"ipv4": {}, "ipv6": {}}
        self.namespaces = {"default"}
        self.numbers = {}
        self.texts = {}
        self.lines = {}
        self.running = set()
        self.kernel = {"default": {}}
        self.counts = []
        self.start()

    # Start of the agent

    def start(self):
        """A start after a clean stop: the default file and the client's file are rewritten from the start."""
        self.vrfs = []
        self.has_default_item = False
        self.is_scanning = True
        self.lines[DEFAULT_FILE] = []
        self.lines[CLIENT_FILE] = []
        self._replay()

    def start_after_kill(self):
        """A start after a failure keeps the files."""
        self.vrfs = []
        self.has_default_item = False
        self.is_scanning = True
        self._replay()

    def _replay(self):
        self.server = settings.Server(self._write_server, self.fips_is_on)
        self.client = settings.Client(self._write_client, self.fips_is_on)
        self.texts[PAM_FILE] = PAM
        self.client_is_incomplete = False
        self.server.start(settings.SERVER_START)
        self.client.start(settings.CLIENT_START)
        self.server.write(DELETED, "LogLevel", None)
        self.client.write(DELETED, "LogLevel", None)
        if self.fips_is_on():
            settings.enter_fips(self.server, self.client)
        else:
            settings.leave_fips(self.server, self.client, DELETED)
        self._make_unit("default")
        for binding in (SERVER, CLIENT):
            for path in sorted(self.stored, key=str.encode):
                if path.startswith(binding):
                    self._apply(path, CREATED, None, self.stored[path])
        self.is_scanning = False
        for path in (MOTD if MOTD in self.stored else LOGIN, AAA):
            if path in self.stored:
                self._announce(path)
        self._reconcile()

    def _reconcile(self):
        """What is stored is in force before the first event."""
        for vrf in self.vrfs:
            if not self._agrees(vrf):
                self._make_vrf_file(vrf)
            if vrf.name in self.namespaces:
                self.running.add(vrf.name)
                if not vrf.was_started:
                    self._make_unit(vrf.name)
        self.running &= {vrf.name for vrf in self.vrfs}

    def _agrees(self, vrf):
        """Whether a VRF's file has the settings of the default file and its own lines."""
        return self.agree(self.lines[vrf.file], self.lines[DEFAULT_FILE] + self._own_lines(vrf))

    def _own_lines(self, vrf):
        netconf = [" ".join(NETCONF_LINE), "Port 830"] if vrf.has_netconf else []
        return netconf + (["Port 22"] if self._has_ssh(vrf) else [])

    def agree(self, found, expected):
        """Whether the lines of two files of servers mean the same."""
        found, expected = lines.one_form(found), lines.one_form(expected)
        return [line for line in found if line in OWN] == [line for line in expected if line in OWN] and (
            self._settings_of(found) == self._settings_of(expected))

    @staticmethod
    def _settings_of(found):
        """The settings that lines make; a keyword without a line has its default."""
        defaults = {keyword.strip(): default for keyword, default, _ in settings.SERVER_ROWS if default}
        defaults["IPQoS"] = settings.tos("0x10")
        result = {}
        for line in found:
            keyword, value = line.split(" ", 1) if " " in line else (line, "")
            if line not in OWN and keyword != "WindowScaleQd":
                result.setdefault(keyword, []).append(value)
        unset = {"Protocol", "Port", "Banner", "WindowScaleQd", "UserTrustpointCntQd"}
        for keyword, default in defaults.items():
            if keyword not in unset:
                result.setdefault(keyword, [default])
        return {keyword: names_of(keyword, ",".join(values)) for keyword, values in result.items()}

    def _make_vrf_file(self, vrf):
        self.lines[vrf.file] = self.lines[DEFAULT_FILE] + self._own_lines(vrf)

    def _has_ssh(self, vrf):
        is_default = vrf.name == "default" and f"{SERVER}sshd/v2" in self.stored
        return is_default or f"{SERVER}sshd/vrf/{vrf.name}" in self.stored

    # Writers

    def fips_is_on(self):
        return FIPS in self.stored

    def _edit(self, path, event, keyword, value):
        if keyword == "HostKey ":
            return lines.set_lines(self.lines[path], keyword, value)
        if event == DELETED:
            return lines.remove_line(self.lines[path], keyword, value)
        return lines.set_line(self.lines[path], keyword, value)

    def _make_default_file(self):
        """A code point is never written as it is."""
        self.lines[DEFAULT_FILE] = [
            f"{keyword} {settings.tos(value) if keyword == 'IPQoS' else self.server.permitted(keyword, value)}"
            for keyword, value in self.server.current.items() if value is not None]

    def _write_client(self, event, keyword, value):
        self.lines.setdefault(CLIENT_FILE, [])
        self._edit(CLIENT_FILE, event, keyword, value)

    def _write_server(self, event, keyword, value):
        """Changes a keyword in the default file and, if that changed, in the VRFs' files."""
        if DEFAULT_FILE not in self.lines:
            self._make_default_file()
        elif not self._edit(DEFAULT_FILE, event, keyword, value):
            return
        changed = False
        for vrf in list(self.vrfs):
            if vrf.count == 0:
                self._remove_vrf(vrf)
                continue
            if vrf.file not in self.lines:
                self._make_vrf_file(vrf)
                changed = True
            changed = self._edit(vrf.file, event, keyword, value) or changed
            if not changed:
                return
            self._restart(vrf)

    # Servers

    def _find(self, name):
        return next((vrf for vrf in self.vrfs if vrf.name == name), None)

    def _unit_exists(self, name):
        return f"{UNITS}sshd_service_{name}.service" in self.texts

    def _make_unit(self, name):
        environment = f"{UNITS}sshd_conf_{name}.conf"
        self.texts[f"{UNITS}sshd_service_{name}.service"] = UNIT.format(environment=environment)
        self.texts[environment] = ENVIRONMENT.format(vrf=name, file=f"{FOLDER}sshd_config_{name}", number=f"<{name}>")

    def _restart(self, vrf):
        if vrf.name in self.namespaces and self._unit_exists(vrf.name):
            self.running.add(vrf.name)

    def _start(self, vrf):
        self._make_unit(vrf.name)
        self._restart(vrf)
        vrf.was_started = True

    def _stop(self, name):
        if self._unit_exists(name):
            self.running.discard(name)

    def _remove_vrf(self, vrf):
        self.lines.pop(vrf.file, None)
        self._stop(vrf.name)
        self.vrfs.remove(vrf)

    def _refer(self, name, event):
        """One more item wants the VRF's server. Returns the VRF and whether it is new."""
        vrf = self._find(name)
        if vrf is None:
            vrf = Vrf(name)
            self.vrfs.insert(0, vrf)
            return vrf, True
        self.counts.append(f"vrf:={name}, refCnt:={vrf.count}, ssh server already running")
        if event & 1 or self.is_scanning:
            vrf.count += 1
        return vrf, False

    def _release(self, vrf):
        vrf.count -= 1
        self.counts.append(f"vrf:={vrf.name}, refCnt:={vrf.count}, ssh server will be stopped if refcnt is 0")

    def _prepare(self, vrf, is_new):
        """Makes the VRF's file if there is none, or a stale one of a server that does not run. Returns whether it did."""
        if vrf.file in self.lines and not (is_new and vrf.name not in self.running):
            return False
        self.lines[vrf.file] = list(self.lines[DEFAULT_FILE])
        return True

    # Items

    def _apply(self, path, event, previous, value):
        if path.startswith(CLIENT):
            item = path.removeprefix(CLIENT)
            if item not in WITHOUT_EFFECT:
                self.client.apply(item, event, value)
        elif path.startswith(SERVER):
            item = path.removeprefix(SERVER)
            if item == "sshd/v2":
                self._apply_v2(event)
            elif item.startswith(("sshd/vrf/", "sshd/vrf-netconf/")):
                self._apply_vrf(item, event, previous, value)
            elif item.startswith("cmn/") and item not in WITHOUT_EFFECT:
                self.server.apply(item.removeprefix("cmn/"), event, value)

    def _apply_v2(self, event):
        if event == DELETED:
            self._delete_v2()
        else:
            self.server.current["Protocol"] = "2"
            vrf, is_new = self._refer("default", event)
            self._make_tables(vrf)
            self._prepare(vrf, is_new)
            lines.set_line(self.lines[vrf.file], "Port", "22")
        self._write_server(event, "Protocol", self.server.current["Protocol"])

    def _delete_v2(self):
        self.server.current["Protocol"] = None
        vrf = self._find("default")
        if vrf is not None:
            if not self.has_default_item:
                lines.remove_line(self.lines[vrf.file], "Port", "22")
            vrf.count -= 1

    def _apply_vrf(self, item, event, previous, value):
        name = item.rsplit("/", 1)[1]
        kinds = (NETCONF_IPV4, NETCONF_IPV6) if item.startswith("sshd/vrf-netconf/") else (SSH_IPV4, SSH_IPV6)
        if event == DELETED:
            self._delete_service(self._find(name), kinds)
        elif previous is not None:
            self._change_lists(self._find(name), kinds, value)
        else:
            self._add_service(name, event, kinds, value)
        if name == "default" and SSH_IPV4 in kinds:
            self.has_default_item = event != DELETED

    def _add_service(self, name, event, kinds, value):
        vrf, is_new = self._refer(name, event)
        changed = self._prepare(vrf, is_new)
        if NETCONF_IPV4 in kinds:
            vrf.has_netconf = True
            changed = lines.set_line(self.lines[vrf.file], *NETCONF_LINE) or changed
            changed = lines.set_line(self.lines[vrf.file], "Port", "830") or changed
        else:
            changed = lines.set_line(self.lines[vrf.file], "Port", "22") or changed
        for kind, list_name in zip(kinds, value[1:]):
            vrf.lists[kind] = list_name or vrf.lists[kind]
        if name in self.namespaces:
            if changed:
                self._start(vrf)
            self._make_tables(vrf)
            for kind in kinds:
                if vrf.lists[kind]:
                    self._attach(vrf, kind)

    def _change_lists(self, vrf, kinds, value):
        """The rules of a family whose list stays the same are not touched."""
        changed = [(kind, list_name or "") for kind, list_name in zip(kinds, value[1:]) if vrf.lists[kind] != (list_name or "")]
        for kind, list_name in changed:
            vrf.lists[kind] = list_name
        if vrf.name not in self.namespaces:
            return
        self._make_tables(vrf)
        for kind, _ in changed:
            self._flush(vrf, kind)
            if vrf.lists[kind]:
                self._attach(vrf, kind)

    def _delete_service(self, vrf, kinds):
        if vrf is None:
            return
        if NETCONF_IPV4 in kinds:
            vrf.has_netconf = False
            lines.remove_line(self.lines[vrf.file], NETCONF_LINE[0])
            lines.remove_line(self.lines[vrf.file], "Port", "830")
        elif not (vrf.name == "default" and self.server.current["Protocol"]):
            lines.remove_line(self.lines[vrf.file], "Port", "22")
        self._release(vrf)
        for kind in kinds:
            if vrf.lists[kind]:
                self._flush(vrf, kind)
                vrf.lists[kind] = ""
        if vrf.count == 0:
            self._remove_vrf(vrf)
        else:
            self._restart(vrf)

    # Access lists

    def _load(self, vrf, kind, text):
        self.texts[rule_files.path_of(vrf.name, kind)] = text
        rule_files.load(self.kernel[vrf.name], text)

    def _make_tables(self, vrf):
        if vrf.name in self.namespaces:
            self._load(vrf, ALL, rule_files.empty_tables_text())

    def _flush(self, vrf, kind):
        if vrf.name in self.namespaces:
            self._load(vrf, kind, rule_files.flush_text(kind))

    def _entries(self, name, kind):
        return self.access_lists["ipv6" if rule_files.is_ipv6(kind) else "ipv4"].get(name)

    def _attach(self, vrf, kind):
        entries = self._entries(vrf.lists[kind], kind)
        if entries:
            self._load(vrf, kind, rule_files.list_text(kind, entries))
        else:
            self.texts[rule_files.path_of(vrf.name, kind)] = rule_files.header(kind)

    def uses(self, name, kind):
        """Whether rules of that kind are in force in a VRF."""
        vrf = self._find(name)
        return vrf is not None and name in self.namespaces and (kind == ALL or bool(self._entries(vrf.lists[kind], kind)))

    def change_list(self, family, name, entries):
        """Replaces a list, or deletes it without entries. A list that is the same is not loaded again."""
        if entries is not None and self.access_lists[family].get(name) == entries:
            return
        if entries is None:
            self.access_lists[family].pop(name, None)
        else:
            self.access_lists[family][name] = entries
        for vrf in self.vrfs:
            for kind in (SSH_IPV6, NETCONF_IPV6) if family == "ipv6" else (SSH_IPV4, NETCONF_IPV4):
                if vrf.lists[kind] == name and vrf.name in self.namespaces:
                    self._attach(vrf, kind) if entries else self._flush(vrf, kind)

    # Namespaces

    def add_namespace(self, name):
        self.namespaces.add(name)
        self.kernel[name] = {}
        vrf = self._find(name)
        if vrf is None or vrf.was_started:
            return
        self._start(vrf)
        self._make_tables(vrf)
        for kind in range(4):
            if vrf.lists[kind]:
                self._attach(vrf, kind)

    def delete_namespace(self, name):
        self.namespaces.discard(name)
        self.kernel.pop(name, None)
        vrf = self._find(name)
        if vrf is not None:
            self._stop(name)
            vrf.was_started = False
        for path in (f"{UNITS}sshd_service_{name}.service", f"{UNITS}sshd_conf_{name}.conf"):
            self.texts.pop(path, None)

    def services(self):
        """By VRF, which services are attached, and which wait for the namespace. No port is blocked while nothing fails."""
        result = {}
        for name in self.namespaces | {path.rsplit("/", 1)[1] for path in self.stored if "/sshd/vrf" in path}:
            wanted = {"ssh": self._has_ssh(Vrf(name)), "netconf": f"{SERVER}sshd/vrf-netconf/{name}" in self.stored}
            exists = name in self.namespaces
            result[name] = {"namespace": exists, "blocked": False, "closed": [],
                            "waiting": [service for service in wanted if wanted[service] and not exists]}
            result[name] |= {service: wanted[service] and exists for service in wanted}
        return result

    # Commits

    def commit(self, changes):
        """Carries out a commit: a value for each path, or None to delete it. Returns whether it is accepted."""
        changes = {path: value for path, value in changes.items() if self.stored.get(path) != value}
        if not self._verifies(changes):
            return False
        before = dict(self.stored)
        for path, value in changes.items():
            if value is None:
                self.stored.pop(path, None)
            else:
                self.stored[path] = value
        for path in sorted(changes, key=str.encode):
            event = DELETED if changes[path] is None else CHANGED if path in before else CREATED
            self._apply(path, event, before.get(path), changes[path])
        for path in sorted(changes, key=str.encode):
            self._announce(path, path in before)
        return True

    def _verifies(self, changes):
        after = copy.copy(self)
        after.stored = {path: value for path, value in (self.stored | changes).items() if value is not None}
        return all(value is None or after._verifies_item(path, value, changes, path not in self.stored)
                   for path, value in changes.items())

    def _verifies_item(self, path, value, changes, is_new):
        side = self.client if path.startswith(CLIENT) else self.server
        item = path.removeprefix(CLIENT).removeprefix(SERVER).removeprefix("cmn/")
        if item == "algorithms/key-exchange":
            return verifies_names(value, settings.KEX_NAMES, settings.GROUP1) and not (
                self.fips_is_on() and {settings.CURVE, settings.CURVE_ALIAS, settings.GROUP1} & set(value))
        if item == "algorithms/cipher":
            return verifies_names(value, settings.CIPHER_NAMES, settings.TRIPLE_DES) and not (
                self.fips_is_on() and settings.CHACHA20 in value)
        if item == "algorithms/host-key":
            flags = {name for name, flag in zip(settings.HOST_KEY_FLAGS, value) if flag}
            return not (self.fips_is_on() and flags & {"all-rsa", "ssh-dss", "x509v3-ssh-rsa", "ssh-ed25519", "ssh-rsa"})
        if item.startswith("disable/hmac/"):
            return not set(settings.MAC_NAMES.values()) - {settings.MAC_NAMES[item.rsplit("/", 1)[1]]} <= side.disabled_macs
        if item.startswith("trustpoint/user/"):
            prefix = SERVER + "cmn/trustpoint/user/"
            names = set(self.server.trustpoints) | {each.removeprefix(prefix) for each, new in changes.items()
                                                    if each.startswith(prefix) and new is not None}
            return len(names) <= 10
        if path == FIPS and is_new:
            return all(settings.filtered(keyword, each.current[keyword]) for each in (self.server, self.client)
                       for keyword in ("KexAlgorithms", "Ciphers", "HostKeyAlgorithms"))
        return True

    def _announce(self, path, is_change=False):
        """The notifications of a changed item."""
        if path == FIPS and not is_change and FIPS in self.stored:
            settings.enter_fips(self.server, self.client)
        elif path == FIPS and FIPS not in self.stored:
            settings.leave_fips(self.server, self.client)
        elif path in (MOTD, LOGIN):
            text = "".join(undelimited(self.stored[each]) for each in (MOTD, LOGIN) if each in self.stored)
            self.texts[settings.BANNER] = text
            self.server.set("Banner", settings.BANNER if text else None, CREATED)
        elif path == AAA:
            self.texts.pop("/etc/motd", None)
            if AAA in self.stored:
                self.texts["/etc/motd"] = undelimited(self.stored[AAA])

    def lose(self, path):
        """A file is removed by hand. Only that of PAM is noticed."""
        self.lines.pop(path, None)
        self.client_is_incomplete = self.client_is_incomplete or path == CLIENT_FILE

    def debug(self, flag, is_on):
        side, level = flag.rsplit("-l", 1)
        {"server": self.server, "client": self.client}[side].debug(int(level), is_on)


def names_of(keyword, text):
    """A list without the comma that may end it; the order of key files does not count."""
    names = [name for name in text.split(",") if name]
    return sorted(set(names)) if keyword == "HostKey" else names


def verifies_names(names, known, unsupported):
    return len(set(names)) == len(names) and set(names) <= set(known) and names != [unsupported]


def undelimited(text):
    return text[1:].rsplit(text[0], 1)[0] + "\n"
