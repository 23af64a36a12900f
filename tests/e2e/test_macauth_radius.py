"""MAC authentication: the driver's request line reaches the daemon, a worker
asks the servers and the answer goes back through iwpriv (a recorder); the
VLAN of an accept reaches the station's rules. Against a real FreeRADIUS
server and the real radclient, and once against canned radclient answers
(no server needed, so it runs on target builds too)."""
import pytest

import radius_server
from helpers_clients import STATION, auth_request, macauth_wlan1
from radius_server import REJECT_OTHERS, RadiusServer

ACCEPTED = STATION
REJECTED = "00:aa:bb:cc:dd:ee"

# The server accepts only when every value arrived whole: the SSID with both
# quote kinds and a backslash in Called-Station-Id, the AP name as one
# NAS-Identifier, and no Framed-IP-Address smuggled in beside them.
SSID = 'Joe\'s "Cafe" \\o/'
AP_NAME = 'x", Framed-IP-Address = "10.9.9.9'
USERS = (
    '001122334455 Cleartext-Password := "001122334455", '
    'Called-Station-Id == "02-11-22-33-44-00:Joe\'s \\"Cafe\\" \\\\o/", '
    'NAS-Identifier == "x\\", Framed-IP-Address = \\"10.9.9.9", Framed-IP-Address !* ANY\n'
    '\tTunnel-Type = VLAN, Tunnel-Medium-Type = IEEE-802, Tunnel-Private-Group-Id = "12"\n\n' + REJECT_OTHERS)


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


def configure(sandbox, servers):
    """WLAN 1 on ath0, with the SSID and AP name above, against the given
    per-WLAN servers; the real radclient."""
    macauth_wlan1(sandbox, servers, radius_server.SECRET, {"WLAN1_SSID": SSID, "AP_NAME": AP_NAME})
    sandbox.use_real("radclient")


def test_accept_with_vlan_and_reject(sandbox, radius):
    """The accept also shows that the quoted SSID and AP name arrived whole."""
    configure(sandbox, [LOCAL])
    sandbox.start()

    assert auth_request(sandbox, ACCEPTED) == [f"iwpriv ath0 oem_priv wr:authresp={ACCEPTED},0"]
    assert len(radius.logins()) == 1
    # The VLAN of the tunnel attributes reached the station's rules.
    assert f"-i ath0 -s {ACCEPTED} -j svlan --setvlan 12 " in sandbox.read(f"/tmp/ebt_ctm/{ACCEPTED}")

    assert auth_request(sandbox, REJECTED)[1:] == [f"iwpriv ath0 oem_priv wr:authresp={REJECTED},13"]
    assert not [p for p in sandbox.host_path("/tmp").iterdir() if p.name.startswith("radc-")]  # request files

    # A second request within the cache period is answered without the server.
    assert auth_request(sandbox, ACCEPTED)[2:] == [f"iwpriv ath0 oem_priv wr:authresp={ACCEPTED},0"]
    assert len(radius.logins()) == 2


CANNED_ACCEPT = ("Sent Access-Request Id 1 from 0.0.0.0:40000 to 127.0.0.1:1812 length 120\n"
                 "Received Access-Accept Id 1 from 127.0.0.1:1812 to 0.0.0.0:0 length 38\n"
                 "\tTunnel-Type:0 = VLAN\n\tTunnel-Medium-Type:0 = IEEE-802\n\tTunnel-Private-Group-Id:0 = \"12\"\n")
CANNED_REJECT = ("Sent Access-Request Id 2 from 0.0.0.0:40000 to 127.0.0.1:1812 length 120\n"
                 "Received Access-Reject Id 2 from 127.0.0.1:1812 to 0.0.0.0:0 length 20\n")


@pytest.mark.target
def test_canned_accept_with_vlan_then_reject(sandbox):
    macauth_wlan1(sandbox, [("127.0.0.1", 1812)], "s3cret")
    sandbox.start()

    sandbox.stub_output("radclient", CANNED_ACCEPT)
    assert auth_request(sandbox, ACCEPTED) == [f"iwpriv ath0 oem_priv wr:authresp={ACCEPTED},0"]
    [run] = sandbox.calls("radclient")
    assert run.argv[:7] == ["radclient", "-x", "-r", "1", "127.0.0.1:1812", "auth", "s3cret"]
    assert f"-i ath0 -s {ACCEPTED} -j svlan --setvlan 12 " in sandbox.read(f"/tmp/ebt_ctm/{ACCEPTED}")

    sandbox.stub_output("radclient", CANNED_REJECT)
    assert auth_request(sandbox, REJECTED)[1:] == [f"iwpriv ath0 oem_priv wr:authresp={REJECTED},13"]
    assert not [p for p in sandbox.host_path("/tmp").iterdir() if p.name.startswith("radc-")]  # request files


def test_dead_primary_falls_through_to_secondary(sandbox, radius):
    configure(sandbox, [SILENT, LOCAL])
    sandbox.start()
    assert auth_request(sandbox, REJECTED) == [f"iwpriv ath0 oem_priv wr:authresp={REJECTED},13"]
    assert len(radius.logins()) == 1
