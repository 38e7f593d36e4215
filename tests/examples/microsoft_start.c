/* What Microsoft's run-time library does before main, as far as an example needs it. */
int main(int argc, char** argv);
void mainCRTStartup(void);

/* Of the run-time library. */
int __getmainargs(int* argc, char*** argv, char*** environment, int expandWildcards, int* newMode);
void exit(int code);

void mainCRTStartup(void) {
  int argc = 0;
  char** argv = 0;
  char** environment = 0;
  int newMode = 0;
  exit(__getmainargs(&argc, &argv, &environment, 0, &newMode) == 0 ? main(argc, argv) : 3);
}
