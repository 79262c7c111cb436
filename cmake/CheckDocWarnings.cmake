# Fails on any Doxygen warning about the public C headers (include/kivcam):
# every function, macro, type and record must be documented there. A record's
# fields may go without a comment of their own (Vendor, Model, ...).
file(READ ${WARNINGS} text)
string(REGEX MATCHALL "[^\n]*include/kivcam/[^\n]*" ours "${text}")
list(FILTER ours EXCLUDE REGEX "warning: Member [^ ]+ \\(variable\\) of (struct|union) ")
if(ours)
  list(JOIN ours "\n" ours)
  message(FATAL_ERROR "the public headers' reference is incomplete:\n${ours}")
endif()
