// Records a metric, a structured and an offline log in C, by sd-bus alone.
//
//   cc record.c $(pkg-config --cflags --libs libsystemd) -o record
//
// Each call waits for its reply. With many records, send most calls by sd_bus_send after
// sd_bus_message_set_expect_reply(call, 0), but wait for the reply to every 64th: it confirms all
// before it. More than 128 calls that wait for a reply at once are rejected by the bus.
//
// A metric's value must be a boolean 'b', an integer such as 'i' or 'x', a double 'd' or a string
// 's': any other type aborts the daemon.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <systemd/sd-bus.h>

static const char kService[] = "org.quintara.ap.Pelmor";
static const char kPath[] = "/org/quintara/ap/Pelmor/Manager";
static const char kInterface[] = "org.quintara.ap.Pelmor.Manager";
static const char kType[] = "type.example/ap.Example";

// Both return a negative error number on failure.
static int record_metric(sd_bus* bus, sd_bus_error* error) {
  return sd_bus_call_method(bus, kService, kPath, kInterface, "RecordMetric", error, NULL,
                            "sa{ss}v", "example/utilization", 2, "band", "5g", "language", "c", "d",
                            0.25);
}

static int record_log(sd_bus* bus, const char* method, const char* data, sd_bus_error* error) {
  sd_bus_message* call = NULL;
  int result = sd_bus_message_new_method_call(bus, &call, kService, kPath, kInterface, method);
  if (result >= 0) result = sd_bus_message_append(call, "s", kType);
  if (result >= 0) result = sd_bus_message_append_array(call, 'y', data, strlen(data));
  if (result >= 0) result = sd_bus_call(bus, call, 0, error, NULL);
  sd_bus_message_unref(call);
  return result;
}

int main(void) {
  sd_bus* bus = NULL;
  sd_bus_error error = SD_BUS_ERROR_NULL;
  int result = sd_bus_open_system(&bus);
  if (result < 0) {
    fprintf(stderr, "record: no system bus: %s\n", strerror(-result));
    return EXIT_FAILURE;
  }
  result = record_metric(bus, &error);
  if (result >= 0) result = record_log(bus, "RecordStructuredData", "structured from c", &error);
  if (result >= 0) result = record_log(bus, "RecordOfflineData", "offline from c", &error);
  if (sd_bus_error_has_name(&error, SD_BUS_ERROR_SERVICE_UNKNOWN))
    fprintf(stderr, "record: the telemetry daemon is not running: %s\n", error.message);
  else if (result < 0)
    fprintf(stderr, "record: %s\n", error.message ? error.message : strerror(-result));
  else
    puts("Recorded");
  sd_bus_error_free(&error);
  sd_bus_flush_close_unref(bus);
  return result < 0 ? EXIT_FAILURE : EXIT_SUCCESS;
}
