"""The records in which the agent shows the settings of its servers."""

from rule_files import NETCONF_IPV4, NETCONF_IPV6, SSH_IPV4, SSH_IPV6

VRFS_LENGTH = 1999
VRF_LENGTH = 199
USERNAMES = {1: "Common name(CN)", 2: "User principle name(UPN)"}
BOTH = "Common name(CN) User principle name(UPN)"


def server_params(model):
    """The record of the server parameters."""
    server = model.server
    text = {keyword: value if value is not None else server.defaults[keyword] for keyword, value in server.current.items()}
    volume, time = text["RekeyLimit"].split()
    record = dict.fromkeys(("Passwordauthen", "Keyboardinteractiveauthen", "Pubkeyauthen", "Certificateauthen"), True)
    return record | {
        "Version": "v2", "Port": 22, "Netconfport": 830, "Netconfver": "1.1", "Backupserver": "Disabled",
        "Vrf": _vrfs(model.vrfs, SSH_IPV4, SSH_IPV6),
        "Netconfvrf": _vrfs([vrf for vrf in model.vrfs if vrf.has_netconf], NETCONF_IPV4, NETCONF_IPV6),
        "Hostkeyalgo": text["HostKeyAlgorithms"][:229], "Kexalgo": text["KexAlgorithms"][:229],
        "Cipheralgo": text["Ciphers"][:229], "Macalgo": text["MACs"][:229],
        "Trustpointhost": text["HostTrustpointQd"][:127], "Trustpointuser": ",".join(server.trustpoints)[:1288],
        "Dscp": int(text["IPQoS"], 16), "Ratelimit": int(text["RateLimitQd"]), "Sessionlimit": int(text["SessionLimitQd"]),
        "Rekeytime": int(time[:-1]), "Rekeyvolume": int(volume[:-1]), "Windowscalefactor": int(text["WindowScaleQd"]),
        "Portforwarding": "Disabled" if text["AllowTcpForwarding"] == "no" else "local",
        "Maxauthlimit": int(text["MaxAuthTries"]),
        "CertificateUsername": USERNAMES.get(int(text["CertUsernameQd"]), BOTH),
    }


def telemetry(model):
    """The state that telemetry publishes."""
    limits = {"Timeout": "LoginGraceTime", "RateLimit": "RateLimitQd", "SessionLimit": "SessionLimitQd"}
    enabled = model.server.current["Protocol"] is not None or model.has_default_item
    return {"SshServer": {"State": {"Enable": enabled, "ProtocolVersion": 0} | {
        name: int(model.server.current[keyword]) for name, keyword in limits.items()}}}


def _vrfs(vrfs, ipv4, ipv6):
    """The newest VRF comes last, as the model has them first."""
    texts = [f"vrfname:={vrf.name}(v4-acl:={vrf.lists[ipv4]}, v6-acl:={vrf.lists[ipv6]})  "[:VRF_LENGTH] for vrf in vrfs]
    return "".join(reversed(texts))[:VRFS_LENGTH]
