#include "fixtures.h"

#include <unistd.h>

#include <fstream>
#include <iterator>

#include "appliance.h"

Lines operator+(Lines left, const Lines& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

// Standard output is a file of the test program's: main() sees to that.
std::string traced(const std::function<void()>& body) {
  REQUIRE(::ftruncate(STDOUT_FILENO, 0) == 0);
  body();
  std::ifstream file("/proc/self/fd/1", std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

TestAppliance::~TestAppliance() { CHECK(read("/outside") == ""); }

Bench::Bench() : FanController(CONFIG) {
  corvaneInitResult = corvaneEmptyFetches = 0;
  CHECK(journal({"syslog"}) ==
        Lines{"syslog 6 Fan Controller service has been started - config dir " + CONFIG});
  m_curCmd = std::make_unique<CurCmd>();
  m_valueMap = {{30, 100}, {55, 255}};
  m_lastTempAlert = ALERT_TEMP_NORMAL;
  m_lastFanAlert = ALERT_FAN_WORKING;
}

// The management library's double, in place of the shared library's functions.

static int note(const std::string& call, int result = 0) {
  appliance_note("corvane", call.c_str());
  return result;
}

int corvane_init(corvane_handle*) { return note("init", corvaneInitResult); }

int corvane_get_config(corvane_handle*, int resource) {
  return note("get " + std::to_string(resource), corvaneEmptyFetches-- > 0 ? 1 : 0);
}

int corvane_set_property_string(corvane_handle*, const char* name, const char* value) {
  return note(std::string("property ") + name + "=" + value);
}

int corvane_set_config(corvane_handle*, int resource) {
  return note("write " + std::to_string(resource));
}

int corvane_close(corvane_handle*) { return note("close"); }
