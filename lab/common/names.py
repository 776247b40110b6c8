"""The names, paths and addresses that the daemon shares with its environment."""

import enum

DAEMON_SERVICE = "org.quintara.ap.Pelmor"
DAEMON_PATH = "/org/quintara/ap/Pelmor/Manager"
DAEMON_INTERFACE = "org.quintara.ap.Pelmor.Manager"

BUS_SERVICE = "org.freedesktop.DBus"
BUS_PATH = "/org/freedesktop/DBus"

LARDER_SERVICE = "org.quintara.Larder"
LARDER_PATH = "/org/quintara/Larder"
LARDER_MANAGER_PATH = "/org/quintara/Larder/Manager"
LARDER_MANAGER = "org.quintara.Larder.Manager"
LARDER_COMMAND = "org.quintara.Larder.Command"

TLSDATE_SERVICE = "org.torproject.tlsdate"
TLSDATE_PATH = "/org/torproject/tlsdate"
TLSDATE_INTERFACE = "org.torproject.tlsdate"

SYSTEMD_SERVICE = "org.freedesktop.systemd1"
SYSTEMD_UNIT_PATH = "/org/freedesktop/systemd1/unit/ap_2dpelmor_2eservice"
SYSTEMD_UNIT_INTERFACE = "org.freedesktop.systemd1.Service"

CREDENTIALS_COMMAND = "_apCredentials._setPelmorCredentials"
CREDENTIALS_STATE = "_apCredentials._pelmorCredentials"

CONFIGURATION = "/etc/ap/pelmor.conf"
OVERRIDE = "/var/lib/ap/pelmor.override"
STATE_FOLDER = "/var/lib/ap/pelmor"
REFRESH_TOKEN = f"{STATE_FOLDER}/refresh_token"
RUN_FOLDER = "/tmp/ap/pelmor"
START_TIME = f"{RUN_FOLDER}/uploader.start_time"
RELEASE = "/etc/lsb-release"

HTTPS_PORT = 443
STATSD_ADDRESS = ("127.0.0.1", 8125)

# The lab in the sandbox.
LAB_FOLDER = "/opt/lab"
# The Environment= of the daemon's unit.
DAEMON_ENVIRONMENT = {
    "GLIBC_TUNABLES": "glibc.malloc.tcache_count=1:glibc.malloc.arena_max=1:"
                      "glibc.malloc.mmap_threshold=262144:glibc.malloc.trim_threshold=524288"}
DAEMON_PROGRAM = "/opt/ap/ap-pelmor"
TOOL_PROGRAM = "/opt/ap/pelmorctl"
CLOCK_SHIFT_LIBRARY = "/opt/ap/clock_shift.so"
CLOCK_SHIFT_FILE = "/run/clock_shift"
# A folder shared between the device and the host, and the bus's socket in it.
HOST_FOLDER = "/run/host"
HOST_BUS = "bus"


class Host(enum.StrEnum):
    """The two HTTPS servers of the cloud."""

    IDENTITY = "oauth2.quintara.example"
    MONITORING = "pelmor.quintara.example"

    @property
    def address(self) -> str:
        return {Host.IDENTITY: "127.0.1.1", Host.MONITORING: "127.0.1.2"}[self]


class Endpoint(enum.StrEnum):
    """The endpoint of a request to the cloud."""

    REFRESH = "refresh"
    EXCHANGE = "exchange"
    METRICS = "metrics"
    STRUCTURED_LOGS = "structured_logs"
    OFFLINE_LOGS = "offline_logs"
    UNKNOWN = "unknown"


# The endings of the monitoring service's paths.
METHOD_ENDPOINTS = {"/metrics:batchCreatePoints": Endpoint.METRICS,
                    "/structuredLogs": Endpoint.STRUCTURED_LOGS,
                    "/writeLogs": Endpoint.OFFLINE_LOGS}
