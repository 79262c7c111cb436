// A module that loads but offers no GenTL entry point at all.
extern "C" __attribute__((visibility("default"))) int kivtest_not_a_producer() { return 0; }
