/* Opens one instrument, finding its rate, and sends it commands.
 *
 *   open_send [PORT [COMMAND...]]
 *
 * Without a port, the first of ZELTOCOM_PORTS; without commands, GETSERIAL
 * and GETVERSION. */
#include "example.h"

int main(int argc, char** argv) {
  example_path ports[EXAMPLE_MAX_PORTS];
  if (example_ports(argc > 1 ? 1 : 0, argv + 1, ports) == 0) {
    fprintf(stderr, "usage: open_send [PORT [COMMAND...]] (or set ZELTOCOM_PORTS)\n");
    return 2;
  }
  const char* port = ports[0];
  char version[16];
  ZeltoCom_GetLibraryVersion(version);
  printf("ZeltoCom %s\n", version);

  if (!example_check(ZeltoCom_Open(port, 0), "ZeltoCom_Open")) return 1;
  char serial[ZELTOCOM_SERIAL_NUMBER_SIZE] = "";
  char type[16] = "";
  ZeltoCom_GetSNByPort(serial, port);
  ZeltoCom_GetDeviceType(port, type);
  printf("%s: %s, %s, %d baud\n", port, serial, type, ZeltoCom_GetBaudrate(port));

  char* defaults[] = {"GETSERIAL", "GETVERSION"};
  char** commands = argc > 2 ? argv + 2 : defaults;
  const int count = argc > 2 ? argc - 2 : 2;
  int failed = 0;
  for (int i = 0; i < count; ++i) {
    char answer[EXAMPLE_ANSWER_BYTES] = "";
    if (example_check(ZeltoCom_Send(port, commands[i], answer), commands[i])) {
      printf("%s -> %s\n", commands[i], answer);
    } else {
      failed = 1;
    }
  }
  ZeltoCom_Close(port);
  return failed;
}
