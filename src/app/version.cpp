// The version. Read it from the executable with strings: the process has no options.

__attribute__((used)) static const char version[] = "focus_assist " FOCUS_VERSION;
