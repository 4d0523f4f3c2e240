"""Random histories of a router, and one step of a history carried out on the model.

A step is an array, so that a history can be kept as JSON:

    ["commit", {PATH: VALUE or null}]          ["kill_at", NUMBER, {PATH: VALUE or null}]
    ["list", FAMILY, NAME, ENTRIES or null]    ["kill_in_list", NUMBER, FAMILY, NAME, ENTRIES or null]
    ["lose", PATH, {PATH: VALUE}]              ["namespace", VRF, EXISTS]
    ["debug", FLAG, IS_ON]                     ["fail", NUMBER, COUNT, {PATH: VALUE or null}]
    ["restart"]    ["kill"]

where NUMBER is that of the command by which the agent is killed, or of the first of COUNT that fail, after which the agent is started again.

Steps that make no sense where they come, like the deletion of a missing namespace, are left out, so that any part of a
history is a history.
"""

import random

import settings
from router_model import AAA, CLIENT, CLIENT_FILE, DEFAULT_FILE, FIPS, LOGIN, MOTD, PAM_FILE, SERVER

VRFS = ["red", "blue", "x" * 32]
LISTS = ["ops", "mgmt"]
DEBUG_FLAGS = [f"{side}-l{level}" for side in ("server", "client") for level in (1, 2, 3)]


def numbers(low, high):
    return lambda chance: chance.choice([low, high, chance.randint(low, high)])


def choices(*values):
    return lambda chance: chance.choice(values)


def names(known, common):
    """A list of algorithm names; sometimes one that is refused."""

    def make(chance):
        kind = chance.random()
        if kind < 0.05:
            return chance.choices(known, k=2)
        if kind < 0.1:
            return [chance.choice(known)]
        pool = common if kind < 0.5 else known
        return chance.sample(pool, chance.randint(1, len(pool)))

    return make


def host_keys(chance):
    allowed = chance.random() < 0.5
    flags = [chance.random() < 0.4 and not (allowed and position in (3, 4, 5, 6, 9)) for position in range(10)]
    # A list of certificates only would have no key file at all.
    flags[0] = flags[0] or not any(flag for position, flag in enumerate(flags) if position != 5)
    return flags


def banner(chance):
    text = chance.choice(["Welcome", "Two\nlines", "with # inside", "tab\there", "é"])
    mark = chance.choice("#%!|")
    return mark + text + mark


COMMON = {
    "dscp": numbers(0, 63), "rekey_time": numbers(1, 1440), "rekey_volume": numbers(1, 4096),
    "tcp_window_scale": numbers(1, 14),
    "algorithms/key-exchange": names(settings.KEX_NAMES, [*settings.KEX_NAMES[:4], *settings.KEX_NAMES[6:8]]),
    "algorithms/cipher": names(settings.CIPHER_NAMES, settings.CIPHER_NAMES[:5]),
    "disable/hmac/hmac_sha1": choices(True, False), "disable/hmac/hmac_sha256": choices(True, False),
    "disable/hmac/hmac_sha512": choices(True, False),
    "enable/cipher": choices([True, False], [False, False], [True, True]),
}
ITEMS = {SERVER + "cmn/" + item: value for item, value in COMMON.items()} | {
    CLIENT + item: value for item, value in COMMON.items()} | {
    SERVER + "cmn/timeout": numbers(5, 120), SERVER + "cmn/max_auth_limit": numbers(3, 20),
    SERVER + "cmn/rate_limit": numbers(1, 600), SERVER + "cmn/session_limit": numbers(1, 100),
    SERVER + "cmn/logging": choices(True), SERVER + "cmn/port_forwarding": choices(0, 1),
    SERVER + "cmn/algorithms/host-key": host_keys, SERVER + "cmn/certificate/username": choices(
        [True, False], [False, True], [True, True], [False, False]),
    SERVER + "cmn/trustpoint/host": choices("router", "t" * 127),
    SERVER + "cmn/v1": choices(True), SERVER + "cmn/capability/netconf-xml": choices(True),
    CLIENT + "v2": choices(True), CLIENT + "host_pubkey": choices("/etc/hosts", "/k" * 100),
    CLIENT + "vrf": choices("red"), CLIENT + "source": choices("Loopback0"),
    MOTD: banner, LOGIN: banner, AAA: banner,
}
MACS = [path for path in ITEMS if "/hmac/" in path]
TRUSTPOINTS = [SERVER + "cmn/trustpoint/user/" + name for name in (*"abcdefghijkl", "long" * 10, "longer" * 16)]


def service_value(chance):
    return [None, *(chance.choice([*LISTS, *LISTS, "missing", None]) for _ in range(2))]


def service_name(chance, model):
    """Mostly a VRF with a namespace."""
    return chance.choice([*VRFS, "default", "default", *sorted(model.namespaces - {"default"}) * 3])


def change(chance, model):
    """One item of a commit: its path, and its value or None."""
    kind = chance.random()
    if model.stored and kind < 0.3:
        return chance.choice(sorted(model.stored)), None
    if kind < 0.55:
        item = chance.choice(["sshd/vrf/", "sshd/vrf/", "sshd/vrf-netconf/"])
        return SERVER + item + service_name(chance, model), service_value(chance)
    if kind < 0.62:
        return chance.choice([SERVER + "sshd/v2", FIPS]), True
    if kind < 0.67:
        return chance.choice(TRUSTPOINTS), True
    if kind < 0.72:
        return chance.choice([*MACS, SERVER + "cmn/logging"]), True
    path = chance.choice(sorted(ITEMS))
    return path, ITEMS[path](chance)


def changes(chance, model):
    wanted = dict(change(chance, model) for _ in range(chance.choice([1, 1, 1, 2, 3, 6])))
    # Whether one commit may disable all three MACs is up to sshd, which is not asked here.
    for side in (SERVER + "cmn/", CLIENT):
        macs = [path for path in wanted if path.startswith(side + "disable/hmac/")]
        for path in macs[1:]:
            del wanted[path]
    return wanted


# Access lists


def condition(chance, low_high):
    """An operator and two numbers; most conditions are absent."""
    operator = chance.choice([0, 0, 0, 0, 0, 1, 2, 3, 4, 5])
    first, second = sorted(chance.randint(*low_high) for _ in range(2))
    return operator, first, second


def destination_port(chance):
    operator = chance.choice([0, 0, 0, 1, 2, 3, 4, 5])
    first = chance.choice([21, 22, 23, 80, 829, 830, 831])
    return operator, first, min(65535, first + chance.choice([0, 10, 1000]))


def ipv4_address(chance):
    return ".".join(str(chance.choice([0, 10, 127, 192, 255])) for _ in range(4))


def ipv4_mask(chance):
    return chance.choice(["0.0.0.0", "0.0.0.0", "255.255.255.255", "0.0.0.255", "0.255.255.255", "0.0.15.255",
                          "0.255.0.255", "255.0.0.0", "128.0.0.0", "127.255.255.255", "0.0.0.1"])


def ipv6_prefix(chance):
    """An address, its mask and its length. Some masks are not contiguous, some lengths disagree."""
    address = chance.choice(["::", "2001:db8::1", "fe80::1:2", "::ffff:10.0.0.1", "2001:0:0:1::1"])
    length = chance.choice([0, 32, 64, 127, 128])
    bits = (1 << 128) - (1 << (128 - length))
    if chance.random() < 0.1:
        bits ^= 1 << 60
    mask = ":".join(f"{bits >> shift & 0xFFFF:x}" for shift in range(112, -1, -16))
    return address, mask, length if chance.random() < 0.9 else 48


def put(entry, fields, values):
    entry.update(zip(fields, values))


def entry(chance, family, sequence):
    made = {"SequenceNumber": sequence, "CounterName": chance.choice(["", "", "hits"])}
    action = chance.choice(["permit", "deny"])
    log = chance.choice([0, 0, 1])
    flags = (chance.choice([0, 0, 1, 2]), chance.randint(0, 255), chance.randint(0, 255))
    dscp = (chance.choice([True, False, False]), chance.randint(0, 5), *sorted(chance.randint(0, 63) for _ in range(2)))
    length = condition(chance, (0, 65535))
    lifetime = condition(chance, (0, 255))
    if family == "ipv4":
        put(made, ("Grant", "LogOption", "ProtocolOperator", "Protocol"),
            (action, log, chance.choice([0, 1]), chance.choice([6, 6, 6, 512, 17])))
        put(made, ("SourceAddress", "SourceAddressMask"), (ipv4_address(chance), ipv4_mask(chance)))
        put(made, ("DestinationAddress", "DestinationAddressMask"), (ipv4_address(chance), ipv4_mask(chance)))
        put(made, ("SourceOperator", "SourcePort1", "SourcePort2"), condition(chance, (1, 65535)))
        put(made, ("DestinationOperator", "DestinationPort1", "DestinationPort2"), destination_port(chance))
        put(made, ("TCPFlagsOperator", "TCPFlags", "TCPFlagsMask"), flags)
        put(made, ("DSCPPresent", "DSCPOperator", "DSCP", "DSCP2"), dscp)
        put(made, ("PacketLengthOperator", "PacketLength1", "PacketLength2"), length)
        put(made, ("TTLOperator", "TTL1", "TTL2"), lifetime)
        put(made, ("FragmentOffsetOperator", "FragmentOffset1", "FragmentOffset2"), condition(chance, (0, 8191)))
        return made
    put(made, ("IsPacketAllowOrDeny", "IsLogOption", "IsProtocolOperator", "IsIPV6ProtocolType"),
        (action, log, chance.choice([0, 1]), chance.choice([6, 6, 6, 513, 17])))
    put(made, ("IsSourceAddressInNumbers", "SourceMask", "IsSourceAddressPrefixLength"), ipv6_prefix(chance))
    put(made, ("IsDestinationAddressInNumbers", "DestinationMask", "IsDestinationAddressPrefixLength"),
        ipv6_prefix(chance))
    put(made, ("IsSourceOperator", "IsSourcePort1", "IsSourcePort2"), condition(chance, (1, 65535)))
    put(made, ("IsDestinationOperator", "IsDestinationPort1", "IsDestinationPort2"), destination_port(chance))
    put(made, ("IsTCPBitsOperator", "IsTCPBits", "IsTCPBitsMask"), flags)
    put(made, ("IsDSCPPresent", "DSCPOperator", "IsDSCPValu", "IsDSCPValu2"), dscp)
    put(made, ("IsPacketLengthOperator", "IsPacketLengthStart", "IsPacketLengthEnd"), length)
    put(made, ("IsTimeToLiveOperator", "IsTimeToLiveStart", "IsTimeToLiveEnd"), lifetime)
    return made


def list_step(chance):
    family = chance.choice(["ipv4", "ipv6"])
    count = chance.choice([None, 0, 1, 3, 6, 6, 6])
    entries = None if count is None else [entry(chance, family, 10 * (index + 1)) for index in range(count)]
    return ["list", family, chance.choice(LISTS), entries]


# Steps


def lose_step(chance, model):
    """A file is lost, and a change of a setting makes it again."""
    file = chance.choice([*(vrf.file for vrf in model.vrfs), DEFAULT_FILE, CLIENT_FILE, PAM_FILE])
    item = CLIENT + "rekey_time" if file == CLIENT_FILE else SERVER + "cmn/timeout"
    return ["lose", file, {item: ITEMS[item](chance)}]


def debug_step(chance, model):
    """Half of the time a flag that is on is turned off."""
    on = [f"{name}-l{level}" for name, side in (("server", model.server), ("client", model.client))
          for level in sorted(side.debug_levels)]
    if on and chance.random() < 0.5:
        return ["debug", chance.choice(on), False]
    return ["debug", chance.choice(DEBUG_FLAGS), True]


def step(chance, model):
    kind = chance.random()
    if kind < 0.58:
        return ["commit", changes(chance, model)]
    if kind < 0.74:
        return list_step(chance)
    if kind < 0.86:
        vrf = chance.choice(VRFS)
        # Namespaces come more often than they go.
        return ["namespace", vrf, vrf not in model.namespaces or chance.random() < 0.5]
    if kind < 0.88:
        return lose_step(chance, model)
    if kind < 0.92:
        return debug_step(chance, model)
    if kind < 0.95:
        return ["kill_at", chance.choice([1, 1, 2, 3, 4, 6]), changes(chance, model)]
    if kind < 0.97:
        return ["fail", chance.choice([1, 1, 2, 3, 4]), chance.choice([1, 1, 2, 100]), changes(chance, model)]
    if kind < 0.975:
        return ["kill_in_list", chance.randint(1, 3), *list_step(chance)[1:]]
    return ["restart"] if kind < 0.988 else ["kill"]


def makes_sense(model, wanted):
    """Whether a step can be carried out where the model is."""
    kind, *arguments = wanted
    if kind == "lose":
        path, changed = arguments
        is_there = path in model.lines or path == PAM_FILE
        return is_there and all(model.stored.get(item) != value for item, value in changed.items())
    if kind in ("commit", "kill_at", "fail"):
        changed = arguments[-1]
        return bool(changed) and all(value is not None or path in model.stored for path, value in changed.items())
    if kind in ("list", "kill_in_list"):
        family, name, entries = arguments[-3:]
        return entries is not None or name in model.access_lists[family]
    if kind == "namespace":
        return (arguments[0] in model.namespaces) != arguments[1]
    if kind == "debug":
        side, level = arguments[0].rsplit("-l", 1)
        levels = {"server": model.server, "client": model.client}[side].debug_levels
        return (int(level) in levels) != arguments[1]
    return True


def generator(seed):
    """Draws steps that make sense for a model: next_step(model)."""
    chance = random.Random(seed)

    def next_step(model):
        while not makes_sense(model, wanted := step(chance, model)):
            pass
        return wanted

    return next_step
