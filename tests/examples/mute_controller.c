/* The simulated controllers, spoiled for an example: they say nothing, or refuse what KIV_REFUSE tells, the
 * number of a command. */
#include <stdlib.h>

#include "kiv/sim.h"

__attribute__((constructor)) static void spoil(void) {
    const char *command = getenv("KIV_REFUSE");
    kiv_sim_hci_config config;
    kiv_sim_hci_get_config(0, &config);
    config.answers = command != NULL;
    kiv_sim_hci_set_config(0, &config);
    if (command != NULL)
        kiv_sim_hci_refuse(0, (unsigned)strtoul(command, NULL, 0), 1);
}
