"""The settings of servers and client: what each item, debug flag and FIPS mode make of the parameters and of the files.

Each side has a function that writes a keyword to its files: write(event, keyword, text).
"""

CREATED, CHANGED, DELETED = 3, 2, 4

GCM128, GCM256 = "aes128-gcm@openssh.com", "aes256-gcm@openssh.com"
CHACHA20 = "chacha20-poly1305@openssh.com"
CURVE, CURVE_ALIAS = "curve25519-sha256", "curve25519-sha256@libssh.org"
GROUP1, TRIPLE_DES = "diffie-hellman-group1-sha1", "3des-cbc"

KEX_NAMES = ["ecdh-sha2-nistp521", "ecdh-sha2-nistp384", "ecdh-sha2-nistp256", "diffie-hellman-group14-sha1", GROUP1,
             CURVE, "diffie-hellman-group14-sha256", "diffie-hellman-group16-sha512", CURVE_ALIAS]
CBC = ["aes128-cbc", "aes192-cbc", "aes256-cbc"]
CIPHER_NAMES = ["aes128-ctr", "aes192-ctr", "aes256-ctr", GCM128, GCM256, *CBC, TRIPLE_DES, CHACHA20]
MAC_NAMES = {"hmac_sha512": "hmac-sha2-512", "hmac_sha256": "hmac-sha2-256", "hmac_sha1": "hmac-sha1"}

KEX_DEFAULT = ",".join([*KEX_NAMES[:4], *KEX_NAMES[5:]])
KEX_FIPS = ",".join([*KEX_NAMES[:4], *KEX_NAMES[6:8]])
CIPHER_DEFAULT = ",".join([*CIPHER_NAMES[:5], CHACHA20])
MAC_DEFAULT = ",".join(MAC_NAMES.values())
ECDSA = ["ecdsa-sha2-nistp256", "ecdsa-sha2-nistp384", "ecdsa-sha2-nistp521"]
RSA = ["rsa-sha2-512", "rsa-sha2-256", "ssh-rsa"]
CLIENT_HOST_KEYS = ",".join([*ECDSA, "ssh-ed25519", *RSA, "ssh-dss"])
HOST_KEY_DEFAULT = "x509v3-ssh-rsa," + CLIENT_HOST_KEYS
HOST_KEY_FIPS = ",".join([*ECDSA[::-1], *RSA[:2]])
HOST_KEY_FLAGS = [*ECDSA, "all-rsa", "ssh-dss", "x509v3-ssh-rsa", "ssh-ed25519", *RSA]
KEY_FILES_DEFAULT = ",".join("/pkg/" + name for name in [*ECDSA, "ed25519", "rsa", "dsa"])
KEY_FILES_FIPS = ",".join("/pkg/" + name for name in [*ECDSA[::-1], "rsa"])

BANNER = "/var/opt/norvo/norvossh/banner"
CERTIFICATES = "x509v3-ssh-rsa,x509v3-ecdsa-sha2-nistp256,x509v3-ecdsa-sha2-nistp384,x509v3-ecdsa-sha2-nistp521,x509v3-ssh-dss,ssh-rsa"

# Keyword, default, and whether the default is in force at the start. In the order in which a lost file is made again.
SERVER_ROWS = [
    ("Protocol", "2,1", False), ("UsePAM", "yes", True), ("Port", "22", False), ("MACs", MAC_DEFAULT, True),
    ("MaxAuthTries", "20", True), ("RekeyLimit", "1024M 60m", True), ("MaxSessions", "16", True), ("IPQoS", "0x10", True),
    ("PermitRootLogin", "yes", True), ("NorvoSSHFipsMode", "", False), ("LogLevel", "", False),
    ("WindowScaleQd", "1", False), ("Subsystem", "sftp /pkg/bin/sftp-server", True), ("RateLimitQd", "60", True),
    ("SessionLimitQd", "64", True), ("Banner", BANNER, False), ("AcceptedAlgorithms", CERTIFICATES, True),
    ("LoginGraceTime", "30", True), ("ClientAliveInterval", "60", True), ("AllowTcpForwarding", "no", True),
    ("HostTrustpointQd", "", False), ("UserTrustpointQd", "", False), ("UserTrustpointCntQd", "0", False),
    ("CertUsernameQd", "1", False), ("HostKeyAlgorithms", HOST_KEY_DEFAULT, True), ("HostKey ", KEY_FILES_DEFAULT, True),
    ("Ciphers", CIPHER_DEFAULT, True), ("KexAlgorithms", KEX_DEFAULT, True),
]
CLIENT_ROWS = [
    ("Protocol", "2,1", False), ("MACs", MAC_DEFAULT, True), ("RekeyLimit", "1024M 60m", True), ("IPQoS", "0x10", True),
    ("WindowScaleQd", "", False), ("UserKnownHostsFile", "/dev/null", True), ("LogLevel", "", False),
    ("StrictHostKeyChecking", "no", True), ("ServerAliveInterval", "60", True), ("PubkeyAuthentication", "no", True),
    ("Ciphers", CIPHER_DEFAULT, True), ("KexAlgorithms", KEX_DEFAULT, True), ("HostKeyAlgorithms", CLIENT_HOST_KEYS, True),
]
SERVER_START = ["UsePAM", "HostKeyAlgorithms", "PermitRootLogin", "MaxAuthTries", "MaxSessions", "RekeyLimit", "Subsystem",
                "MACs", "Ciphers", "KexAlgorithms", "AcceptedAlgorithms", "LoginGraceTime", "ClientAliveInterval",
                "AllowTcpForwarding", "HostKey ", "IPQoS"]
CLIENT_START = ["RekeyLimit", "UserKnownHostsFile", "StrictHostKeyChecking", "HostKeyAlgorithms", "MACs", "Ciphers",
                "KexAlgorithms", "ServerAliveInterval", "PubkeyAuthentication", "IPQoS"]


# FIPS mode's filters


def _is_approved(kind, name):
    if kind == "KexAlgorithms":
        return not name.startswith(CURVE)
    if kind == "Ciphers":
        return name != CHACHA20
    return not name.startswith(("ssh-dss", "ssh-ed25519", "ssh-rsa", "x509v3-ssh-rsa"))


def filtered(kind, text):
    """The approved names of a list, each followed by a comma."""
    return "".join(name + "," for name in text.split(",") if name and _is_approved(kind, name))


def key_files_of(host_keys):
    """The key files of a filtered list; a file is named once for each algorithm."""
    names = ["ssh-rsa" if name in RSA[:2] else name for name in host_keys.split(",")]
    files = {"ssh-rsa": "/pkg/rsa", "ssh-dsa": "/pkg/dsa", "ssh-ed25519": "/pkg/ed25519"} | {n: "/pkg/" + n for n in ECDSA}
    return ",".join(files[name] for name in names if name in files)


class Side:
    """What servers and client have in common."""

    def __init__(self, rows, write, fips_is_on):
        self.defaults = {keyword: default for keyword, default, _ in rows}
        self.current = {keyword: default if in_force else None for keyword, default, in_force in rows}
        self.write = write
        self.fips_is_on = fips_is_on
        self.disabled_macs = set()
        self.cipher_base = CIPHER_DEFAULT
        self.has_cbc = False
        self.debug_levels = set()
        self.logging = False

    def start(self, keywords):
        for keyword in keywords:
            value = self.current[keyword]
            self.write(CREATED, keyword, tos(value) if keyword == "IPQoS" else value)

    def apply(self, item, event, value):
        """Carries out an item of both sides; `item` is its path below the server's cmn/ or the client's items."""
        if item.startswith("disable/hmac/"):
            self._mac(MAC_NAMES[item.rsplit("/", 1)[1]], event, value)
            return
        {"dscp": self._dscp, "rekey_time": self._rekey_time, "rekey_volume": self._rekey_volume,
         "tcp_window_scale": self._window_scale, "algorithms/key-exchange": self._key_exchange,
         "algorithms/cipher": self._ciphers, "enable/cipher": self._legacy_ciphers}[item](event, value)

    def set(self, keyword, value, event):
        self.current[keyword] = value
        self.write(DELETED if value is None else event, keyword, value)

    def permitted(self, kind, text):
        """A list as it is written: filtered while FIPS mode is on, if the filter removes something."""
        if kind == "HostKey ":
            names = self.current["HostKeyAlgorithms"]
            filtered_names = self.permitted("HostKeyAlgorithms", names)
            return text if filtered_names == names else key_files_of(filtered_names)
        if kind not in ("KexAlgorithms", "Ciphers", "HostKeyAlgorithms"):
            return text
        names = filtered(kind, text)[:-1]
        return names if self.fips_is_on() and names != text else text

    def _dscp(self, event, value):
        self.current["IPQoS"] = self.defaults["IPQoS"] if event == DELETED else f"0x{value:x}"
        self.write(CREATED, "IPQoS", tos(self.current["IPQoS"]))

    def _rekey(self):
        volume, time = self.current["RekeyLimit"].split()
        return volume.rstrip("M"), time.rstrip("m")

    def _rekey_time(self, event, value):
        self.set("RekeyLimit", f"{self._rekey()[0]}M {60 if event == DELETED else value}m", CREATED)

    def _rekey_volume(self, event, value):
        self.set("RekeyLimit", f"{1024 if event == DELETED else value}M {self._rekey()[1]}m", CREATED)

    def _window_scale(self, event, value):
        self.current["WindowScaleQd"] = None if event == DELETED else str(value)

    def _mac(self, name, event, value):
        if event != DELETED and value:
            self.disabled_macs.add(name)
        else:
            self.disabled_macs.discard(name)
        names = [each for each in MAC_NAMES.values() if each not in self.disabled_macs]
        self.set("MACs", ",".join(names), CREATED if event == DELETED else event)

    def _key_exchange(self, event, value):
        if event == DELETED:
            self.current["KexAlgorithms"] = KEX_DEFAULT
            self.write(CREATED, "KexAlgorithms", KEX_FIPS if self.fips_is_on() else KEX_DEFAULT)
            return
        self.current["KexAlgorithms"] = ",".join(name for name in value if name != GROUP1)
        self.write(event, "KexAlgorithms", self.permitted("KexAlgorithms", self.current["KexAlgorithms"]))

    def _with_cbc(self):
        names = self.cipher_base
        for name in CBC if self.has_cbc else []:
            names += "" if name in names else "," + name
        return names

    def _ciphers(self, event, value):
        if event == DELETED:
            self.cipher_base = CIPHER_DEFAULT
        else:
            self.cipher_base = ",".join(name for name in value if name != TRIPLE_DES)
        self.current["Ciphers"] = self._with_cbc()
        self.write(CREATED if event == DELETED else event, "Ciphers", self.permitted("Ciphers", self.current["Ciphers"]))

    def _legacy_ciphers(self, event, value):
        self.has_cbc = event != DELETED and (self.has_cbc or bool(value[0]))
        names = self.current["Ciphers"] = self._with_cbc()
        self.write(CREATED if event == DELETED else event, "Ciphers",
                   filtered("Ciphers", names) if self.fips_is_on() else names)

    def debug(self, level, is_on):
        """Turns a debug level from 1 to 3 on or off."""
        (self.debug_levels.add if is_on else self.debug_levels.discard)(level)
        self.set("LogLevel", (self._log_level_on if is_on else self._log_level_off)(level), CREATED)

    def _log_level_on(self, level):
        return f"DEBUG{level}" if level == max(self.debug_levels) else self.current["LogLevel"]

    def _log_level_off(self, level):
        others = self.debug_levels
        if level == 1:
            return "VERBOSE" if self.logging else self.current["LogLevel"] if others else None
        if level == 2:
            return self.current["LogLevel"] if 3 in others else "DEBUG1" if others or self.logging else None
        return f"DEBUG{max(others)}" if others else None


def tos(text):
    """A DSCP code point, written in hexadecimal, as the type of service that files have."""
    return f"0x{int(text, 16) * 4:x}"


class Server(Side):
    """The servers' settings."""

    def __init__(self, write, fips_is_on):
        super().__init__(SERVER_ROWS, write, fips_is_on)
        self.trustpoints = []

    def apply(self, item, event, value):
        simple = {"timeout": ("LoginGraceTime", CREATED), "max_auth_limit": ("MaxAuthTries", CREATED),
                  "rate_limit": ("RateLimitQd", event), "session_limit": ("SessionLimitQd", event)}
        if item in simple:
            keyword, written = simple[item]
            self.current[keyword] = self.defaults[keyword] if event == DELETED else str(value)
            self.write(written, keyword, self.current[keyword])
        elif item.startswith("trustpoint/user/"):
            self._user_trustpoint(item.rsplit("/", 1)[1], event)
        elif item in ("logging", "port_forwarding", "trustpoint/host", "certificate/username", "algorithms/host-key"):
            {"logging": self._logging, "port_forwarding": self._port_forwarding, "trustpoint/host": self._host_trustpoint,
             "certificate/username": self._certificate, "algorithms/host-key": self._host_keys}[item](event, value)
        else:
            super().apply(item, event, value)

    def _logging(self, event, _value):
        self.logging = event != DELETED
        if not self.debug_levels:
            self.set("LogLevel", "VERBOSE" if self.logging else None, event)

    def _port_forwarding(self, event, value):
        self.set("AllowTcpForwarding", "local" if event != DELETED and value == 1 else "no", CREATED)

    def _host_trustpoint(self, event, value):
        self.set("HostTrustpointQd", None if event == DELETED else value, event)

    def _user_trustpoint(self, name, event):
        if event == DELETED:
            if name in self.trustpoints:
                self.trustpoints[self.trustpoints.index(name)] = self.trustpoints[-1]
                self.trustpoints.pop()
        elif name not in self.trustpoints:
            self.trustpoints.append(name)
        for keyword, text in (("UserTrustpointCntQd", str(len(self.trustpoints))),
                              ("UserTrustpointQd", ",".join(self.trustpoints)[:127])):
            self.set(keyword, text if self.trustpoints else None, CREATED)

    def _certificate(self, event, value):
        mask = 1 if event == DELETED else bool(value[0]) + 2 * bool(value[1])
        self.current["CertUsernameQd"] = str(mask)
        self.write(CREATED, "CertUsernameQd", str(mask))

    def _host_keys(self, event, value):
        if event == DELETED:
            self.current |= {"HostKeyAlgorithms": HOST_KEY_DEFAULT, "HostKey ": KEY_FILES_DEFAULT}
            names, files = (HOST_KEY_FIPS, KEY_FILES_FIPS) if self.fips_is_on() else (HOST_KEY_DEFAULT, KEY_FILES_DEFAULT)
        else:
            names, files = chosen_host_keys({name for name, flag in zip(HOST_KEY_FLAGS, value) if flag})
            self.current |= {"HostKeyAlgorithms": names, "HostKey ": files}
            names, files = self.permitted("HostKeyAlgorithms", names), self.permitted("HostKey ", files)
        self.write(CREATED, "HostKey ", files)
        self.write(CREATED, "HostKeyAlgorithms", names)


def chosen_host_keys(flags):
    """The algorithms and key files that the flags choose."""
    names, files = [], []
    for name in ("x509v3-ssh-rsa", *ECDSA[::-1], "ssh-ed25519"):
        if name in flags:
            names.append(name)
            files += [] if name.startswith("x509") else ["/pkg/" + name.removeprefix("ssh-")]
    rsa = RSA if "all-rsa" in flags else [name for name in RSA if name in flags]
    names += rsa
    files += ["/pkg/rsa"] if rsa else []
    if "ssh-dss" in flags:
        names.append("ssh-dss")
        files.append("/pkg/dsa")
    return ",".join(names), ",".join(files)


class Client(Side):
    """The client's settings."""

    def __init__(self, write, fips_is_on):
        super().__init__(CLIENT_ROWS, write, fips_is_on)

    def apply(self, item, event, value):
        if item == "v2":
            self.set("Protocol", None if event == DELETED else "2", event)
        elif item == "host_pubkey":
            self.current["UserKnownHostsFile"] = "/dev/null" if event == DELETED else value
            self.write(CREATED, "UserKnownHostsFile", self.current["UserKnownHostsFile"])
            self.set("StrictHostKeyChecking", "no" if event == DELETED else "ask", CREATED)
        else:
            super().apply(item, event, value)


# FIPS mode


def enter_fips(server, client):
    names = filtered("HostKeyAlgorithms", server.current["HostKeyAlgorithms"])
    server.write(CREATED, "HostKey ", key_files_of(names))
    server.write(CREATED, "HostKeyAlgorithms", names)
    server.set("NorvoSSHFipsMode", "yes", CREATED)
    client.write(CREATED, "HostKeyAlgorithms", names)
    for keyword in ("Ciphers", "KexAlgorithms"):
        for side in (server, client):
            side.write(CREATED, keyword, filtered(keyword, side.current[keyword]))


def leave_fips(server, client, event=CREATED):
    """At the start, while FIPS mode is off, the event is DELETED."""
    server.set("NorvoSSHFipsMode", None, DELETED)
    server.write(CREATED, "HostKey ", server.current["HostKey "])
    server.write(CREATED, "HostKeyAlgorithms", server.current["HostKeyAlgorithms"])
    client.write(CREATED, "HostKeyAlgorithms", client.defaults["HostKeyAlgorithms"])
    for keyword in ("Ciphers", "KexAlgorithms"):
        for side in (server, client):
            side.write(event, keyword, side.current[keyword])
