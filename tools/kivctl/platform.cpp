// product, fat.

#include "kiv/platform.h"

#include <cerrno>
#include <cstring>

#include "areas.h"
#include "output.h"

namespace kivctl {

exit_code product(const request &from) {
    char name[256];
    const int status = get_product_name(name, sizeof name);
    name_device("/proc/cpuinfo");
    if (status == -ENOENT)
        return fail(unavailable, nullptr, "this kernel does not tell the board's name");
    if (status != 0)
        return fail("reading", -status);
    const uint32_t revision = get_product_revision();
    if (from.json)
        json_line().text("name", name).number("revision", revision);
    else
        printf("name      %s\nrevision  0x%x\n", name, revision);
    return done;
}

exit_code fat_attr(const request &from) {
    exit_code result = done;
    for (int i = 0; i < from.count; ++i) {
        const char *path = from.arguments[i];
        uint32_t attributes = 0;
        name_device(path);
        const int status = kiv_fs_get_fat_attribute(path, &attributes);
        if (status != 0) {
            result = fail(failed, "reading the attributes", "%s",
                          strerror(status)); // the others are looked at all the same
            continue;
        }
        const bool hidden = (attributes & KIV_FAT_HIDDEN) != 0;
        const bool system = (attributes & KIV_FAT_SYSTEM) != 0;
        if (from.json)
            json_line().text("file", path).truth("hidden", hidden).truth("system", system);
        else
            printf("%c%c %s\n", hidden ? 'h' : '-', system ? 's' : '-', path);
    }
    return result;
}

} // namespace kivctl
