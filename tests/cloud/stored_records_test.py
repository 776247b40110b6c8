"""From the provisioning command to the stored record: the released daemon, the reference cloud."""

import time
from collections.abc import Iterator

import pytest

from cloud.process import Cloud
from lab.device.device import Device
from lab.device.external import of_the_reference
from lab.device.values import int64
from tests.cloud.client import Client, wait_until

pytestmark = pytest.mark.xdist_group("cloud")
_DATA = bytes(range(256)) * 4


@pytest.fixture
def device(cloud: Cloud, device_id: str) -> Iterator[Device]:
    with Device(cloud=of_the_reference(cloud)) as one:
        one.larder.register(device_id)
        one.start_daemon()
        one.larder.add_credentials_command(code=cloud.provision(device_id))
        one.larder.wait_for_call("Complete")
        yield one


def test_each_record_of_a_daemon_is_stored_as_it_was_recorded(device: Device, client: Client,
                                                              device_id: str) -> None:
    before = int(time.time())
    device.record_metric("ap/radio/utilization", {"band": "5g", "a.b": "ü"}, 0.25)
    device.record_metric("ap/clients", {}, int64(12))
    device.record_metric("ap/name", {"empty": ""}, "text\n")
    device.record_structured("type.example/Event", b"\x00\xfb\xff\x01")
    device.record_offline("type.example/Blob", _DATA)
    wait_until(lambda: len(client.rows("logs", "id")) == 2, "the logs")
    assert client.rows("logs", "kind", "convert_from(type_url, 'UTF8')", "value",
                       f"device_time >= {before}") == [
        ["structuredLogs", "type.example/Event", r"\x00fbff01", ""],
        ["writeLogs", "type.example/Blob", rf"\x{_DATA.hex()}", "t"]]
    assert client.rows("points", "encode(name, 'escape')", "encode(labels, 'escape')", "type",
                       "encode(value, 'escape')") == [
        ["ap/name", '{"empty": ""}', "stringValue", r'"text\\n"']]
    client.wait_for_samples(2)
    start = client.rows("points", "start_time")[0][0]
    own = {"pelmor_device": device_id, "pelmor_start": start}
    found = {labels["__name__"]: (labels, samples) for labels, samples in client.samples()}
    assert {name: labels for name, (labels, _) in found.items()} == {
        "ap/radio/utilization": own | {"__name__": "ap/radio/utilization", "band": "5g",
                                       "a.b": "ü", "pelmor_type": "double"},
        "ap/clients": own | {"__name__": "ap/clients", "pelmor_type": "int64"}}
    values = {name: value for name, (_, ((at, value),)) in found.items()
              if before <= at // 1000 <= time.time()}
    assert values == {"ap/radio/utilization": 0.25, "ap/clients": 12}


def test_a_relay_forwards_to_the_hosts_of_the_cloud_only(device: Device) -> None:
    device.wait_for("relay.opened", host="oauth2.quintara.example:443")
    script = ("import socket\nfor address in (('192.0.2.1', 443), ('127.0.0.1', 22)):\n"
              "  try: socket.create_connection(address, 1); print('reached')\n"
              "  except OSError: print('failed')")
    assert device.run("/usr/bin/python3", "-c", script).output == "failed\nfailed\n"
