// The version, to be read from the executable with strings: the process itself takes no options.

__attribute__((used)) static const char version[] = "focus_assist " FOCUS_VERSION;
