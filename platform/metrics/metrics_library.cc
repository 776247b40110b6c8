#include "metrics/metrics_library.h"

bool MetricsLibrary::SendSparse(const std::string&, int) { return false; }
