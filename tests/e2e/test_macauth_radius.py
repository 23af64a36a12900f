"""MAC authentication against a real FreeRADIUS server and the real radclient:
the driver's request line reaches the daemon, a worker asks the servers and
the answer goes back through iwpriv (a recorder)."""
import pytest

import radius_server
from helpers_clients import STATION, two_vaps
from radius_server import REJECT_OTHERS, RadiusServer, user_entry

ACCEPTED = STATION
REJECTED = "00:aa:bb:cc:dd:ee"

USERS = user_entry("001122334455", "001122334455",
                   ["Tunnel-Type = VLAN", "Tunnel-Medium-Type = IEEE-802",
                    'Tunnel-Private-Group-Id = "12"']) + REJECT_OTHERS


@pytest.fixture
def radius(sandbox):
    why = radius_server.available()
    if why:
        pytest.skip(why)
    server = RadiusServer(sandbox, USERS)
    server.start()
    yield server
    server.stop()


LOCAL = ("127.0.0.1", radius_server.AUTH_PORT)
SILENT = ("127.0.0.1", 1999)  # nothing listens: radclient waits for its time-out


def configure(sandbox, servers, extra=None):
    """WLAN 1 on ath0 with external MAC authentication against the given
    per-WLAN servers (host, port); bridge mode with optional dynamic VLANs;
    extra adds or replaces keys."""
    config = {"AP_MODE": "bridge", "WLAN1_ACL_MODE": "3", "WLAN1_DYNAMIC_VLAN": "optional", "WLAN1_RADIUS": "enable",
              **(extra or {})}
    for n, (host, port) in enumerate(servers, 1):
        config.update({f"WLAN1_RADIUS{n}_HOST": host, f"WLAN1_RADIUS{n}_SECRET": radius_server.SECRET,
                       f"WLAN1_RADIUS{n}_AUTHPORT": str(port)})
    two_vaps(sandbox, config)
    # The applied marker makes start-up apply the VLAN and MAC-auth settings.
    sandbox.write("/etc/masterconfig.applied", "")
    # radclient refuses a request whose NAS-IP-Address is not an address.
    sandbox.write_config("/etc/net/wan.status", {"ipaddr": "192.168.1.2"})
    sandbox.use_real("radclient")


def ask(sandbox, mac):
    """The driver's request; once the worker has ended, every iwpriv call so far."""
    sandbox.write_fifo("/etc/event_pipe", f"wlan ath0 Halcyon.Wlan.Controller.Mgmt.auth {mac}\n")
    sandbox.wait_idle(timeout=60)
    return sandbox.commands("iwpriv")


def test_accept_with_vlan_and_reject(sandbox, radius):
    configure(sandbox, [LOCAL])
    sandbox.start()

    assert ask(sandbox, ACCEPTED) == [f"iwpriv ath0 oem_priv wr:authresp={ACCEPTED},0"] and len(radius.logins()) == 1
    # The VLAN of the tunnel attributes reached the station's rules.
    assert f"-i ath0 -s {ACCEPTED} -j svlan --setvlan 12 " in sandbox.read(f"/tmp/ebt_ctm/{ACCEPTED}")

    assert ask(sandbox, REJECTED)[1:] == [f"iwpriv ath0 oem_priv wr:authresp={REJECTED},13"]
    assert not [p for p in sandbox.host_path("/tmp").iterdir() if p.name.startswith("radc-")]  # request files

    # A second request within the cache period is answered without the server.
    assert ask(sandbox, ACCEPTED)[2:] == [f"iwpriv ath0 oem_priv wr:authresp={ACCEPTED},0"]
    assert len(radius.logins()) == 2


def test_dead_primary_falls_through_to_secondary(sandbox, radius):
    configure(sandbox, [SILENT, LOCAL])
    sandbox.start()
    assert ask(sandbox, REJECTED) == [f"iwpriv ath0 oem_priv wr:authresp={REJECTED},13"] and len(radius.logins()) == 1


# The server accepts only when every value arrived whole: the SSID with both
# quote kinds and a backslash in Called-Station-Id, the AP name as one
# NAS-Identifier, and no Framed-IP-Address smuggled in beside them.
SSID = 'Joe\'s "Cafe" \\o/'
AP_NAME = 'x", Framed-IP-Address = "10.9.9.9'
STRICT_USERS = (
    '001122334455 Cleartext-Password := "001122334455", '
    'Called-Station-Id == "02-11-22-33-44-00:Joe\'s \\"Cafe\\" \\\\o/", '
    'NAS-Identifier == "x\\", Framed-IP-Address = \\"10.9.9.9", Framed-IP-Address !* ANY\n'
    '\tTunnel-Type = VLAN, Tunnel-Medium-Type = IEEE-802, Tunnel-Private-Group-Id = "12"\n\n' + REJECT_OTHERS)


def test_quotes_in_ssid_and_ap_name_reach_the_server_as_one_value_each(sandbox):
    why = radius_server.available()
    if why:
        pytest.skip(why)
    server = RadiusServer(sandbox, STRICT_USERS)
    server.start()
    configure(sandbox, [LOCAL], {"WLAN1_SSID": SSID, "AP_NAME": AP_NAME})
    sandbox.write_config("/etc/net/wan.status", {"ipaddr": ""})  # no address: no NAS-IP-Address line
    sandbox.start()
    assert ask(sandbox, ACCEPTED) == [f"iwpriv ath0 oem_priv wr:authresp={ACCEPTED},0"] and len(server.logins()) == 1
    assert "--setvlan 12 " in sandbox.read(f"/tmp/ebt_ctm/{ACCEPTED}")
    server.stop()
