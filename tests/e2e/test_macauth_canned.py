"""A MAC-authentication round against canned radclient answers (no RADIUS
server needed): the driver's request, the worker's radclient run, the answer
through iwpriv and the VLAN of an accept into the station's rules."""
import pytest

from helpers_clients import STATION, two_vaps

OTHER = "00:aa:bb:cc:dd:ee"
ACCEPT = ("Sent Access-Request Id 1 from 0.0.0.0:40000 to 127.0.0.1:1812 length 120\n"
          "Received Access-Accept Id 1 from 127.0.0.1:1812 to 0.0.0.0:0 length 38\n"
          "\tTunnel-Type:0 = VLAN\n\tTunnel-Medium-Type:0 = IEEE-802\n\tTunnel-Private-Group-Id:0 = \"12\"\n")
REJECT = ("Sent Access-Request Id 2 from 0.0.0.0:40000 to 127.0.0.1:1812 length 120\n"
          "Received Access-Reject Id 2 from 127.0.0.1:1812 to 0.0.0.0:0 length 20\n")


def ask(sandbox, mac):
    sandbox.write_fifo("/etc/event_pipe", f"wlan ath0 Halcyon.Wlan.Controller.Mgmt.auth {mac}\n")
    sandbox.wait_idle(timeout=10)
    return sandbox.commands("iwpriv")


@pytest.mark.target
def test_accept_with_vlan_then_reject(sandbox):
    two_vaps(sandbox, {"AP_MODE": "bridge", "WLAN1_ACL_MODE": "3", "WLAN1_DYNAMIC_VLAN": "optional",
                       "WLAN1_RADIUS": "enable", "WLAN1_RADIUS1_HOST": "127.0.0.1", "WLAN1_RADIUS1_SECRET": "s3cret",
                       "WLAN1_RADIUS1_AUTHPORT": "1812"})
    sandbox.write("/etc/masterconfig.applied", "")  # start-up applies the MAC-auth settings
    sandbox.write_config("/etc/net/wan.status", {"ipaddr": "192.168.1.2"})
    sandbox.start()

    sandbox.stub_output("radclient", ACCEPT)
    assert ask(sandbox, STATION) == [f"iwpriv ath0 oem_priv wr:authresp={STATION},0"]
    [run] = sandbox.calls("radclient")
    assert run.argv[:7] == ["radclient", "-x", "-r", "1", "127.0.0.1:1812", "auth", "s3cret"]
    assert f"-i ath0 -s {STATION} -j svlan --setvlan 12 " in sandbox.read(f"/tmp/ebt_ctm/{STATION}")

    sandbox.stub_output("radclient", REJECT)
    assert ask(sandbox, OTHER)[1:] == [f"iwpriv ath0 oem_priv wr:authresp={OTHER},13"]
    assert not [p for p in sandbox.host_path("/tmp").iterdir() if p.name.startswith("radc-")]  # request files
