/*
 * A host in C as Microsoft's compiler builds one: no C library, nothing but Win32 and xfer.lib.
 *
 * usage: microsoft_host URL LENGTH: fetches URL and exits 0 when the body has LENGTH bytes that count up from 0, modulo
 * 251.
 */
#include <xfer/xfer.h>
#include <xfer/xfer_download.h>

__declspec(dllimport) const char* GetCommandLineA(void);
__declspec(dllimport) __declspec(noreturn) void ExitProcess(unsigned code);

static int same(const char* one, const char* other) {
  while (*one != 0 && *one == *other) ++one, ++other;
  return *one == *other;
}

/* The start of the next word of the command line; *rest is behind it. */
static char* nextWord(char** rest) {
  char* word;
  char end;
  while (**rest == ' ') ++*rest;
  end = **rest == '"' ? '"' : ' ';
  if (end == '"') ++*rest;
  word = *rest;
  while (**rest != 0 && **rest != end) ++*rest;
  if (**rest != 0) *(*rest)++ = 0;
  return word;
}

void mainCRTStartup(void) {
  static char commandLine[1024];
  const char* const given = GetCommandLineA();
  char* rest = commandLine;
  const char* url;
  const char* digit;
  uint64_t length = 0;
  uint64_t i;
  int n;
  xfer_buffer* const headers = xfer_bufferNew();
  xfer_buffer* const body = xfer_bufferNew();

  for (n = 0; given[n] != 0 && n < 1023; ++n) commandLine[n] = given[n];
  nextWord(&rest);
  url = nextWord(&rest);
  for (digit = nextWord(&rest); *digit != 0; ++digit) length = length * 10 + (uint64_t)(*digit - '0');

  if (!same(xfer_version(), XFER_VERSION_TEXT)) ExitProcess(2);
  if (xfer_download(url, 0, 0, headers, body, 0, 0) != 0) ExitProcess(3);
  if (xfer_bufferSize(headers) < 12 || xfer_bufferSize(body) != length) ExitProcess(4);
  for (i = 0; i < length; ++i) {
    if (xfer_bufferData(body)[i] != i % 251) ExitProcess(5);
  }
  xfer_bufferFree(headers);
  xfer_bufferFree(body);
  if (xfer_downloadWait(12345, 0) != 100001) ExitProcess(6);
  ExitProcess(0);
}
