#include "support/process.h"

#include <windows.h>

#include <cwctype>
#include <map>
#include <system_error>

namespace support {
namespace {

[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(), what);
}

std::wstring wide(const std::string& utf8) {
  return toPath(utf8).wstring();
}

class Handle {
 public:
  explicit Handle(HANDLE handle) : handle_(handle) {}
  ~Handle() { ::CloseHandle(handle_); }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  HANDLE get() const { return handle_; }

 private:
  HANDLE handle_;
};

HANDLE openInheritable(const std::string& path, DWORD access, DWORD creation) {
  SECURITY_ATTRIBUTES inheritable{};
  inheritable.nLength = sizeof inheritable;
  inheritable.bInheritHandle = TRUE;
  const HANDLE handle =
      ::CreateFileW(wide(path).c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, &inheritable,
                    creation, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle == INVALID_HANDLE_VALUE) fail(path);
  return handle;
}

// Only the handles of this list are inherited: sockets of the test must not live on in the child.
class InheritedHandles {
 public:
  explicit InheritedHandles(std::vector<HANDLE> handles) : handles_(std::move(handles)) {
    SIZE_T size = 0;
    ::InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
    storage_.resize(size);
    if (!::InitializeProcThreadAttributeList(get(), 1, 0, &size)) fail("InitializeProcThreadAttributeList");
    if (!::UpdateProcThreadAttribute(get(), 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, handles_.data(),
                                     handles_.size() * sizeof(HANDLE), nullptr, nullptr)) {
      fail("UpdateProcThreadAttribute");
    }
  }
  ~InheritedHandles() { ::DeleteProcThreadAttributeList(get()); }
  InheritedHandles(const InheritedHandles&) = delete;
  InheritedHandles& operator=(const InheritedHandles&) = delete;

  LPPROC_THREAD_ATTRIBUTE_LIST get() { return reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(storage_.data()); }

 private:
  std::vector<HANDLE> handles_;
  std::vector<char> storage_;
};

// As the child's start-up code takes it apart again: backslashes count only in front of a quote.
void appendQuoted(std::wstring& line, const std::wstring& argument) {
  if (!line.empty()) line += L' ';
  line += L'"';
  std::size_t backslashes = 0;
  for (const wchar_t c : argument) {
    if (c == L'\\') {
      ++backslashes;
      continue;
    }
    line.append(c == L'"' ? backslashes * 2 + 1 : backslashes, L'\\');
    backslashes = 0;
    line += c;
  }
  line.append(backslashes * 2, L'\\');
  line += L'"';
}

struct IgnoringCase {
  bool operator()(const std::wstring& a, const std::wstring& b) const {
    return ::CompareStringOrdinal(a.c_str(), -1, b.c_str(), -1, TRUE) == CSTR_LESS_THAN;
  }
};

std::wstring environmentWith(const std::vector<std::string>& additions) {
  std::map<std::wstring, std::wstring, IgnoringCase> variables;
  const auto add = [&](const std::wstring& variable) {
    const std::size_t equals = variable.find(L'=', 1);  // names of the form "=C:" exist
    variables[variable.substr(0, equals)] = variable;
  };
  wchar_t* const own = ::GetEnvironmentStringsW();
  for (const wchar_t* at = own; *at != L'\0'; at += std::wstring(at).size() + 1) add(at);
  ::FreeEnvironmentStringsW(own);
  for (const std::string& addition : additions) add(wide(addition));

  std::wstring block;
  for (const auto& [name, variable] : variables) block += variable + L'\0';
  return block + L'\0';
}

}  // namespace

Process::Process(const std::vector<std::string>& command, const ProcessOptions& options)
    : outFile_(options.outFile.empty() ? folder_.file("out") : options.outFile),
      errFile_(options.errFile.empty() ? folder_.file("err") : options.errFile) {
  const Handle in(openInheritable(options.inFile.empty() ? "NUL" : options.inFile, GENERIC_READ, OPEN_EXISTING));
  const Handle out(openInheritable(outFile_, FILE_APPEND_DATA, CREATE_ALWAYS));
  const Handle err(openInheritable(errFile_, FILE_APPEND_DATA, CREATE_ALWAYS));
  InheritedHandles inherited({in.get(), out.get(), err.get()});

  STARTUPINFOEXW start{};
  start.StartupInfo.cb = sizeof start;
  start.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
  start.StartupInfo.hStdInput = in.get();
  start.StartupInfo.hStdOutput = out.get();
  start.StartupInfo.hStdError = err.get();
  start.lpAttributeList = inherited.get();

  std::wstring line;
  for (const std::string& argument : command) appendQuoted(line, wide(argument));
  std::wstring environment = environmentWith(options.environment);
  const std::wstring folder = wide(options.folder);
  PROCESS_INFORMATION child{};
  if (!::CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE,
                        CREATE_NEW_PROCESS_GROUP | CREATE_UNICODE_ENVIRONMENT | EXTENDED_STARTUPINFO_PRESENT,
                        environment.data(), folder.empty() ? nullptr : folder.c_str(), &start.StartupInfo, &child)) {
    fail(command.front());
  }
  ::CloseHandle(child.hThread);
  id_ = child.dwProcessId;
  handle_ = reinterpret_cast<std::intptr_t>(child.hProcess);
}

Process::~Process() {
  kill();
  wait();
  ::CloseHandle(reinterpret_cast<HANDLE>(handle_));
}

std::optional<int> Process::wait(std::chrono::milliseconds timeout) {
  const auto handle = reinterpret_cast<HANDLE>(handle_);
  DWORD code = 0;
  if (::WaitForSingleObject(handle, static_cast<DWORD>(timeout.count())) != WAIT_OBJECT_0) return std::nullopt;
  if (!::GetExitCodeProcess(handle, &code)) fail("GetExitCodeProcess");
  exitCode_ = static_cast<int>(code);
  return exitCode_;
}

void Process::interrupt() {
  if (running()) ::GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, static_cast<DWORD>(id_));
}

void Process::terminate() {
  kill();
}

void Process::kill() {
  if (running()) ::TerminateProcess(reinterpret_cast<HANDLE>(handle_), 1);
}

std::string siblingProgram(const std::string& name) {
  std::wstring own(32'768, L'\0');  // the longest path there is
  own.resize(::GetModuleFileNameW(nullptr, own.data(), static_cast<DWORD>(own.size())));
  return toUtf8(std::filesystem::path(own).parent_path() / toPath(name + ".exe"));
}

}  // namespace support
