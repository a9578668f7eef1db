/* A plug-in host unloads the library while its sender's thread waits for a frame: the thread goes on, and the
 * library can be loaded again. unload LIBRARY, on the simulated board. */
#include <dlfcn.h>
#include <semaphore.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <kiv/network.h>
#include <kiv/sim.h>

typedef int (*set_sender)(kiv_bnep_sender_cb, const uint8_t *);

static sem_t taken;

static void take(void *context, uint16_t protocol, const uint8_t *payload, uint16_t length, int32_t step) {
    (void)context, (void)protocol, (void)payload, (void)length;
    if (step == KIV_BNEP_FRAME_DATA)
        sem_post(&taken);
}

static void *loaded(const char *library) {
    void *handle = dlopen(library, RTLD_NOW);
    if (handle == NULL) {
        fprintf(stderr, "%s\n", dlerror());
        exit(1);
    }
    return handle;
}

static void call_set_sender(void *library, kiv_bnep_sender_cb sender) {
    static const uint8_t address[6] = {1, 2, 3, 4, 5, 6};
    set_sender set;
    *(void **)&set = dlsym(library, "kiv_bnep_set_sender");
    set(sender, address);
}

static int is_there(const kiv_sim_tap_state *state, void *context) {
    (void)context;
    return state->exists;
}

int main(int argc, char **argv) {
    static const uint8_t frame[60] = {[12] = 0x88, [13] = 0xb5};
    if (argc != 2)
        return 2;
    sem_init(&taken, 0, 0);
    kiv_sim_tun_set_node(KIV_SIM_NET_TUN, KIV_SIM_TUN_PRESENT);

    void *library = loaded(argv[1]);
    call_set_sender(library, take);
    kiv_sim_tap_wait("bnep", is_there, NULL);
    kiv_sim_tap_set_up("bnep", 1);
    dlclose(library);
    kiv_sim_tap_send("bnep", frame, sizeof frame);
    sem_wait(&taken);

    library = loaded(argv[1]);
    call_set_sender(library, NULL);
    dlclose(library);
    return 0;
}
