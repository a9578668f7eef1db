// What programs are told by the environment alone: how a value that makes no sense is reported.

#ifndef KIV_SIM_ENVIRONMENT_H
#define KIV_SIM_ENVIRONMENT_H

namespace kiv::sim {

// One line on stderr: the variable's value, or what is left of it, is ignored, and what it should have been.
void complain(const char *variable, const char *value, const char *expected);

} // namespace kiv::sim

#endif
