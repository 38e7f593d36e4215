#include "support/real_servers.h"

#include <cstdlib>
#include <filesystem>
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

const char* nameOf(Certificate certificate) {
  switch (certificate) {
    case Certificate::Valid:
      return "Valid";
    case Certificate::Expired:
      return "Expired";
    case Certificate::OtherHost:
      return "OtherHost";
    case Certificate::SelfSigned:
      return "SelfSigned";
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

std::string RealServers::url(Certificate certificate, const std::string& path) const {
  return value(std::string("Tls") + nameOf(certificate) + ".origin") + path;
}

std::string RealServers::caFile() const {
  return absolutePath("ca");
}

std::string RealServers::otherCaFile() const {
  return absolutePath("otherCa");
}

std::string RealServers::emptyFile() const {
  return absolutePath("emptyFile");
}

std::string RealServers::pin() const {
  return value("pin");
}

std::vector<std::uint64_t> RealServers::connectionsOf(const std::string& path) const {
  std::istringstream lines(readFile(value("tlsLog")).value_or(""));
  std::vector<std::uint64_t> connections;
  std::uint64_t connection = 0;
  for (std::string asked; lines >> connection >> asked;) {
    if (asked == path) connections.push_back(connection);
  }
  return connections;
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

// To a Windows program such a path is one without a drive: a child in another working folder would look on another
// drive.
std::string RealServers::absolutePath(const std::string& key) const {
  return toUtf8(std::filesystem::absolute(toPath(value(key))));
}

std::uint16_t RealServers::port(const std::string& key) const {
  return static_cast<std::uint16_t>(std::stoul(value(key)));
}

}  // namespace support
