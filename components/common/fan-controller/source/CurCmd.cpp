#include "CurCmd.h"

#include <syslog.h>

#include <array>
#include <cstdio>

#include "utils.h"

namespace {

constexpr std::size_t kRecordSize = 32;

}  // namespace

CurCmd::CurCmd() : CurCmd(std::string()) {}

CurCmd::CurCmd(const std::string& driverPath) : m_driverPath(driverPath) {
  TRACE("CurCmd object created");
}

CurCmd::~CurCmd() { TRACE("CurCmd object deleted"); }

void CurCmd::set_cur_cmd_val(int value) {
  syslog(LOG_INFO, "m_currentCmd %d", m_currentCmd);
  if (value == m_currentCmd) return;
  m_currentCmd = value;
  syslog(LOG_WARNING, "updating m_currentCmd to val %d", value);
  (void)sendCommandToDriver(m_currentCmd, m_driverPath.c_str());
}

int CurCmd::sendCommandToDriver(int value, char const* path) {
  const FilePtr attribute(std::fopen(path, "w"));
  if (!attribute) return 0;
  std::array<char, kRecordSize> record{};
  (void)std::snprintf(record.data(), record.size(), "%i", value);
  // The record stays in the stream's buffer: the driver sees it as one write, at the close.
  (void)std::fwrite(record.data(), record.size(), 1, attribute.get());
  syslog(LOG_INFO, "Send new value to fan %s", record.data());
  return 1;
}
