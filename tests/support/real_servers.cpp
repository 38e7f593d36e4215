#include "support/real_servers.h"

#include <cstdlib>
#include <sstream>
#include <stdexcept>

#include "support/temp_dir.h"

namespace support {

const char* nameOf(RealServer server) {
  switch (server) {
    case RealServer::Nginx:
      return "Nginx";
    case RealServer::NginxTls:
      return "NginxTls";
    case RealServer::NginxH2:
      return "NginxH2";
    case RealServer::NginxShortH2:
      return "NginxShortH2";
    case RealServer::NginxWithoutRanges:
      return "NginxWithoutRanges";
    case RealServer::NginxSlow:
      return "NginxSlow";
    case RealServer::Apache:
      return "Apache";
    case RealServer::Lighttpd:
      return "Lighttpd";
    case RealServer::Python:
      return "Python";
  }
  return "unknown";
}

RealServers::RealServers() {
  const char* path = std::getenv("XFER_TEST_SERVERS");
  if (path == nullptr) throw std::runtime_error("XFER_TEST_SERVERS is not set: run the test with ctest");
  const auto text = readFile(path);
  if (!text) throw std::runtime_error(std::string("cannot read ") + path + ": the servers do not run");
  std::istringstream lines(*text);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t equals = line.find('=');
    if (equals != std::string::npos) values_[line.substr(0, equals)] = line.substr(equals + 1);
  }
}

std::string RealServers::url(RealServer server, const std::string& path) const {
  return value(std::string(nameOf(server)) + ".origin") + path;
}

std::string RealServers::certificateFile() const {
  return value("certificate");
}

std::string RealServers::documentRoot() const {
  return value("documentRoot");
}

std::uint16_t RealServers::proxyPort() const {
  return port("proxyPort");
}

std::uint16_t RealServers::authProxyPort() const {
  return port("authProxyPort");
}

std::uint16_t RealServers::relayProxyPort() const {
  return port("relayProxyPort");
}

std::string RealServers::user() const {
  return value("user");
}

std::string RealServers::password() const {
  return value("password");
}

const std::string& RealServers::value(const std::string& key) const {
  const auto found = values_.find(key);
  if (found == values_.end()) throw std::runtime_error("the servers' file lacks " + key);
  return found->second;
}

std::uint16_t RealServers::port(const std::string& key) const {
  return static_cast<std::uint16_t>(std::stoul(value(key)));
}

}  // namespace support
