/* Opens a port and closes it: enough to see that headers, library and kiv-core came together. */
#include <stdio.h>

#include <kiv/platform.h>
#include <kiv/uart.h>

int main(void) {
    UART_infos port;
    kiv_log_dyn_level_POS = 0;
    const int opened = sup_uart_Init2(&port, "tcp:", 0, 0, NULL);
    const int closed = sup_uart_close(&port);
    const int refused = sup_uart_Init2(&port, "tcpout:192.0.2.1:1", 0, 0, NULL);
    printf("opened %d, closed %d, refused %d\n", opened, closed, refused);
    return opened != 0 || closed != 0 || refused != 19;
}
