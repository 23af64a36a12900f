"""The notifier queue end to end: BSSIDs read from real interfaces, reports
handed to tavo_client, the hold-off delivered by the timed work, and the
client limits."""
import re

STATION = "00:11:22:33:44:55"
BSSID0 = "02:11:22:33:44:00"
BSSID1 = "02:11:22:33:44:01"
# "Office" and "Guest" hex-escaped
OFFICE = "4F6666696365"
GUEST = "4775657374"


def configure(sandbox, config=None, status=None):
    values = {"WLAN1_SSID": "Office", "WLAN2_SSID": "Guest"}
    values.update(config or {})
    sandbox.write_config("/etc/masterconfig.apply", values)
    st = {"WIFI_COUNT": "1", "ATH0_WLANID": "1", "ATH1_WLANID": "2", "ATH0_RADIO": "0",
          "ATH1_RADIO": "0", "WIFI0_DEV": "wifi0"}
    st.update(status or {})
    sandbox.write_config("/var/run/wireless.status", st)
    sandbox.set_lan_interfaces(["ath0", "ath1"])
    sandbox.add_interface("ath0", BSSID0)
    sandbox.add_interface("ath1", BSSID1)


def iwevent(sandbox, ath, word, station=STATION):
    sandbox.write_fifo("/etc/iwevent_pipe", f"12:00:00.000000   {ath}     {word} node:{station}\n")
    sandbox.wait_idle()


def reports(sandbox):
    """The tavo_client runs as (event, message, time)."""
    return [(c.argv[2], c.argv[3], int(c.argv[4])) for c in sandbox.calls("tavo_client")]


def cmd_lines(sandbox):
    return [l[len("cmd: "):] for l in sandbox.stdout().splitlines() if l.startswith("cmd: ")]


def test_association_is_reported_with_the_vaps_bssid(sandbox):
    configure(sandbox)
    sandbox.start()
    now = sandbox.now()
    iwevent(sandbox, "ath0", "Registered")
    [(event, message, since)] = reports(sandbox)
    assert (event, message) == ("21", f"001122334455 021122334400 [{OFFICE}]")
    assert now <= since <= sandbox.now()
    assert "tavo_event_queue: state: 11" in sandbox.stdout()
    # The hex escaping's trace: "O 4Ff 66..."
    assert "O 4Ff 66f 66i 69c 63e 65" in sandbox.stdout()


def test_held_disassociation_is_delivered_after_its_holdoff(sandbox):
    configure(sandbox)
    sandbox.start()
    iwevent(sandbox, "ath0", "Registered")
    iwevent(sandbox, "ath0", "Expired")
    assert [r[0] for r in reports(sandbox)] == ["21"]

    sandbox.advance_time(100)
    sandbox.poke()
    assert [r[0] for r in reports(sandbox)] == ["21"]

    # The timed work runs once the association's hold-off (190 s) is over.
    sandbox.advance_time(91)
    sandbox.poke()
    assert [r[:2] for r in reports(sandbox)] == [
        ("21", f"001122334455 021122334400 [{OFFICE}]"),
        ("22", f"001122334455 021122334400 [{OFFICE}]")]


def test_roaming_station_gets_its_old_vaps_leave_first_in_one_command(sandbox):
    configure(sandbox)
    sandbox.start()
    iwevent(sandbox, "ath0", "Registered")
    iwevent(sandbox, "ath0", "Expired")  # held: reported only 180 s after the association
    iwevent(sandbox, "ath1", "Registered")

    lines = cmd_lines(sandbox)
    assert len(lines) == 2
    times = re.findall(r'" (\d+)  &', lines[1])
    assert lines[1] == (f'tavo_client  -E 22 "001122334455 021122334400 [{OFFICE}]" {times[0]}  &'
                        f'tavo_client  -E 21 "001122334455 021122334401 [{GUEST}]" {times[1]}  &')
    assert sorted(r[0] for r in reports(sandbox)) == ["21", "21", "22"]


def test_vap_client_limit_alerts_and_reports(sandbox):
    configure(sandbox, config={"WLAN1_CLIENT_LIMIT": "5"})
    sandbox.write("/etc/ath0_client_limit", "2\n")  # the file wins over the configuration
    sandbox.set_stations("ath0", 2)
    sandbox.start()
    iwevent(sandbox, "ath0", "Registered")

    assert sandbox.commands("logger") == [
        "logger -t ALERT '[Office] reached maximum (2) no. of associated clients'"]
    assert sorted(r[:2] for r in reports(sandbox)) == [
        ("21", f"001122334455 021122334400 [{OFFICE}]"),
        ("23", f"2 021122334400 [{OFFICE}]")]
    assert cmd_lines(sandbox)[0].startswith("tavo_client  -E 23 ")


def test_radio_client_limit_sends_the_maximum_station_trap(sandbox):
    configure(sandbox, config={"SNMP_TRAP1_IPADDR": "127.0.0.1", "R0_AP_CLIENT_LIMIT": "3"},
              status={"WIFI0_RADIO_CONF_PREFIX": "R0_", "WIFI0_ATH_LIST": "0 1",
                      "WIFI0_RADIO_POLICY": "na"})
    sandbox.set_stations("ath0", 1)
    sandbox.set_stations("ath1", 1)
    sandbox.start()
    iwevent(sandbox, "ath0", "Registered")
    assert sandbox.commands("snmptrap") == []

    sandbox.set_stations("ath1", 2)
    iwevent(sandbox, "ath1", "Registered")
    p = ".1.3.6.1.4.1.9991.100.7.14.17"
    assert [c.argv[7:] for c in sandbox.calls("snmptrap")] == [
        [p + ".2.1", p + ".2.2.1", "s", STATION, p + ".2.2.2", "i", "1"]]
    assert not sandbox.commands("logger")
