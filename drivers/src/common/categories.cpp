// The two log categories, their levels, and the one thing that runs when the library is loaded.

#define KIV_MODULE "drivers/src/common/categories"

#include "common/report.h"
#include "common/shared.h"
#include "kiv/platform.h"

int kiv_log_dyn_level_POS = 3;
int kiv_log_dyn_level_uart_bt = 3;

namespace kiv {

constinit const char pos_category_name[] = "POS";
constinit const char uart_bt_category_name[] = "uart_bt";

namespace {

constinit kiv_log_category pos_category{&kiv_log_dyn_level_POS, pos_category_name, nullptr};
constinit kiv_log_category uart_bt_category{&kiv_log_dyn_level_uart_bt, uart_bt_category_name, nullptr};

[[gnu::constructor]] void register_log_categories() {
    kiv_log_dyn_add(&pos_category);
    kiv_log_dyn_add(&uart_bt_category);
}

// Anybody may set a level at any time, kiv-core through its pointer too.
bool reaches(const int &level, int wanted) noexcept {
    return seen(level) >= wanted;
}

} // namespace

bool pos_wants(int level) noexcept {
    return reaches(kiv_log_dyn_level_POS, level);
}
bool uart_bt_wants(int level) noexcept {
    return reaches(kiv_log_dyn_level_uart_bt, level);
}

} // namespace kiv
