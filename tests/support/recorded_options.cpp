#include "support/recorded_options.h"

#include <algorithm>
#include <cstdarg>
#include <mutex>
#include <utility>

namespace support {
namespace {

struct Records {
  std::mutex mutex;
  std::vector<RecordedHandle> easy;
  std::vector<const void*> taken;  // easy handles that a multi handle has or had
  std::vector<RecordedHandle> multi;
  std::vector<RecordedHandle> share;
  OptionRefusal refusal;
};

// Never destroyed: the library releases its handles when the program ends.
Records& records() {
  static Records& instance = *new Records;
  return instance;
}

void begin(std::vector<RecordedHandle>& handles, const void* handle) {
  if (handle != nullptr) handles.push_back({handle, {}, {}});
}

// The latest handle at this address.
RecordedHandle* find(std::vector<RecordedHandle>& handles, const void* handle) {
  const auto found = std::find_if(handles.rbegin(), handles.rend(),
                                  [&](const RecordedHandle& recorded) { return recorded.handle == handle; });
  return found == handles.rend() ? nullptr : &*found;
}

void add(Options& options, const std::string& name, const std::string& value) {
  const auto [position, isNew] = options.emplace(name, value);
  if (!isNew) position->second += "; " + value;
}

std::string pointerText(const void* pointer) {
  return pointer != nullptr ? "set" : "null";
}

std::string stringText(const char* text) {
  return text != nullptr ? text : "null";
}

std::string listText(const curl_slist* list) {
  if (list == nullptr) return "null";
  std::string text;
  for (; list != nullptr; list = list->next) text += std::string(list->data) + "\n";
  return text;
}

std::string easyName(CURLoption option) {
  const curl_easyoption* const known = curl_easy_option_by_id(option);
  return known != nullptr ? known->name : std::to_string(option);
}

std::string easyPointerText(CURLoption option, void* pointer) {
  if (option == CURLOPT_POSTFIELDS) return stringText(static_cast<const char*>(pointer));
  const curl_easyoption* const known = curl_easy_option_by_id(option);
  const curl_easytype type = known != nullptr ? known->type : CURLOT_OBJECT;
  if (type == CURLOT_STRING) return stringText(static_cast<const char*>(pointer));
  if (type == CURLOT_SLIST) return listText(static_cast<const curl_slist*>(pointer));
  return pointerText(pointer);
}

CURLcode recordEasy(const void* easy, CURLoption option, const std::string& value) {
  Records& all = records();
  const std::string name = easyName(option);
  const std::lock_guard lock(all.mutex);
  if (RecordedHandle* const recorded = find(all.easy, easy)) {
    const bool isTaken = std::find(all.taken.begin(), all.taken.end(), easy) != all.taken.end();
    add(isTaken ? recorded->later : recorded->options, name, value);
  }
  return all.refusal ? all.refusal(name) : CURLE_OK;
}

std::string multiName(CURLMoption option) {
  switch (option) {
    case CURLMOPT_PIPELINING:
      return "PIPELINING";
    case CURLMOPT_MAX_HOST_CONNECTIONS:
      return "MAX_HOST_CONNECTIONS";
    case CURLMOPT_MAX_TOTAL_CONNECTIONS:
      return "MAX_TOTAL_CONNECTIONS";
    default:
      return std::to_string(option);
  }
}

std::string shareName(CURLSHoption option) {
  switch (option) {
    case CURLSHOPT_SHARE:
      return "SHARE";
    case CURLSHOPT_LOCKFUNC:
      return "LOCKFUNC";
    case CURLSHOPT_UNLOCKFUNC:
      return "UNLOCKFUNC";
    case CURLSHOPT_USERDATA:
      return "USERDATA";
    default:
      return std::to_string(option);
  }
}

void record(std::vector<RecordedHandle> Records::*handles, const void* handle, const std::string& name,
            const std::string& value) {
  Records& all = records();
  const std::lock_guard lock(all.mutex);
  if (RecordedHandle* const recorded = find(all.*handles, handle)) add(recorded->options, name, value);
}

std::vector<RecordedHandle> copy(std::vector<RecordedHandle> Records::*handles) {
  Records& all = records();
  const std::lock_guard lock(all.mutex);
  return all.*handles;
}

}  // namespace

std::vector<RecordedHandle> easyHandles() {
  std::vector<RecordedHandle> handles = copy(&Records::easy);
  std::erase_if(handles, [](const RecordedHandle& recorded) { return recorded.options.empty(); });
  return handles;
}

std::vector<RecordedHandle> multiHandles() {
  return copy(&Records::multi);
}

std::vector<RecordedHandle> shareHandles() {
  return copy(&Records::share);
}

void forgetHandles() {
  Records& all = records();
  const std::lock_guard lock(all.mutex);
  all.easy.clear();
  all.taken.clear();
  all.multi.clear();
}

RefusedOptions::RefusedOptions(OptionRefusal refusal) {
  Records& all = records();
  const std::lock_guard lock(all.mutex);
  all.refusal = std::move(refusal);
}

RefusedOptions::~RefusedOptions() {
  Records& all = records();
  const std::lock_guard lock(all.mutex);
  all.refusal = {};
}

}  // namespace support

// ---- What the linker puts in front of libcurl's functions.  An option's number tells the type of its argument.  It
// comes as an int, since the last parameter before the dots must not be promoted. ----

namespace {

using support::records;
using Function = void (*)();

}  // namespace

extern "C" {

CURL* __real_curl_easy_init();
CURL* __wrap_curl_easy_init() {
  CURL* const easy = __real_curl_easy_init();
  support::Records& all = records();
  const std::lock_guard lock(all.mutex);
  std::erase(all.taken, static_cast<const void*>(easy));
  support::begin(all.easy, easy);
  return easy;
}

CURLM* __real_curl_multi_init();
CURLM* __wrap_curl_multi_init() {
  CURLM* const multi = __real_curl_multi_init();
  support::Records& all = records();
  const std::lock_guard lock(all.mutex);
  support::begin(all.multi, multi);
  return multi;
}

CURLSH* __real_curl_share_init();
CURLSH* __wrap_curl_share_init() {
  CURLSH* const share = __real_curl_share_init();
  support::Records& all = records();
  const std::lock_guard lock(all.mutex);
  support::begin(all.share, share);
  return share;
}

CURLMcode __real_curl_multi_add_handle(CURLM* multi, CURL* easy);
CURLMcode __wrap_curl_multi_add_handle(CURLM* multi, CURL* easy) {
  {
    support::Records& all = records();
    const std::lock_guard lock(all.mutex);
    all.taken.push_back(easy);
  }
  return __real_curl_multi_add_handle(multi, easy);
}

CURLcode __real_curl_easy_setopt(CURL* easy, CURLoption option, ...);
CURLcode __wrap_curl_easy_setopt(CURL* easy, int number, ...) {
  const auto option = static_cast<CURLoption>(number);
  va_list arguments;
  va_start(arguments, number);
  CURLcode code = CURLE_OK;
  const auto pass = [&](const std::string& value, auto argument) {
    const CURLcode refused = support::recordEasy(easy, option, value);
    code = refused != CURLE_OK ? refused : __real_curl_easy_setopt(easy, option, argument);
  };
  if (option < CURLOPTTYPE_OBJECTPOINT) {
    const long value = va_arg(arguments, long);
    pass(std::to_string(value), value);
  } else if (option < CURLOPTTYPE_FUNCTIONPOINT) {
    void* const pointer = va_arg(arguments, void*);
    pass(support::easyPointerText(option, pointer), pointer);
  } else if (option < CURLOPTTYPE_OFF_T) {
    const auto function = va_arg(arguments, Function);
    pass(function != nullptr ? "set" : "null", function);
  } else if (option < CURLOPTTYPE_BLOB) {
    const auto value = va_arg(arguments, curl_off_t);
    pass(std::to_string(value), value);
  } else {
    void* const blob = va_arg(arguments, void*);
    pass(support::pointerText(blob), blob);
  }
  va_end(arguments);
  return code;
}

CURLMcode __real_curl_multi_setopt(CURLM* multi, CURLMoption option, ...);
CURLMcode __wrap_curl_multi_setopt(CURLM* multi, int number, ...) {
  const auto option = static_cast<CURLMoption>(number);
  va_list arguments;
  va_start(arguments, number);
  CURLMcode code = CURLM_OK;
  const auto pass = [&](const std::string& value, auto argument) {
    support::record(&support::Records::multi, multi, support::multiName(option), value);
    code = __real_curl_multi_setopt(multi, option, argument);
  };
  if (option < static_cast<int>(CURLOPTTYPE_OBJECTPOINT)) {
    const long value = va_arg(arguments, long);
    pass(std::to_string(value), value);
  } else if (option < static_cast<int>(CURLOPTTYPE_FUNCTIONPOINT)) {
    void* const pointer = va_arg(arguments, void*);
    pass(support::pointerText(pointer), pointer);
  } else {
    const auto function = va_arg(arguments, Function);
    pass(function != nullptr ? "set" : "null", function);
  }
  va_end(arguments);
  return code;
}

CURLSHcode __real_curl_share_setopt(CURLSH* share, CURLSHoption option, ...);
CURLSHcode __wrap_curl_share_setopt(CURLSH* share, int number, ...) {
  const auto option = static_cast<CURLSHoption>(number);
  va_list arguments;
  va_start(arguments, number);
  CURLSHcode code = CURLSHE_OK;
  const auto pass = [&](const std::string& value, auto argument) {
    support::record(&support::Records::share, share, support::shareName(option), value);
    code = __real_curl_share_setopt(share, option, argument);
  };
  if (option == CURLSHOPT_SHARE || option == CURLSHOPT_UNSHARE) {
    const int kind = va_arg(arguments, int);
    pass(std::to_string(kind), kind);
  } else if (option == CURLSHOPT_USERDATA) {
    void* const pointer = va_arg(arguments, void*);
    pass(support::pointerText(pointer), pointer);
  } else {
    const auto function = va_arg(arguments, Function);
    pass(function != nullptr ? "set" : "null", function);
  }
  va_end(arguments);
  return code;
}
}
