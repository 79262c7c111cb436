/* Loaded by the module tests: its state shows whether an unload really
   happened, its symbols whether they stayed local to the module. */
int kivtest_value = 0;

int kivtest_get(void) { return kivtest_value; }

void kivtest_set(int v) { kivtest_value = v; }
