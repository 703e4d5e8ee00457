/* Opens every instrument of a station at once and captures on all of them
 * in parallel, one worker thread per port.
 *
 *   station_capture [PORT...]
 *
 * Without ports, those of ZELTOCOM_PORTS. */
#include "example.h"

int main(int argc, char** argv) {
  example_path ports[EXAMPLE_MAX_PORTS];
  const int n = example_ports(argc - 1, argv + 1, ports);
  if (n == 0) {
    fprintf(stderr, "usage: station_capture [PORT...] (or set ZELTOCOM_PORTS)\n");
    return 2;
  }
  const char* paths[EXAMPLE_MAX_PORTS];
  int results[EXAMPLE_MAX_PORTS];
  for (int i = 0; i < n; ++i) paths[i] = ports[i];

  /* Rate 0: each port searches its instrument's rate. */
  if (!example_check(ZeltoCom_Open_Multi(results, paths, n, 0), "ZeltoCom_Open_Multi")) return 1;
  /* Automatic range, no PWM; one result per open port, in the order opened. */
  const int captured = ZeltoCom_CaptureFromAll(results, 0, 0, 0);
  example_check(captured, "ZeltoCom_CaptureFromAll");

  printf("%-14s %-12s %-7s %-16s %s\n", "port", "serial", "result", "x y (fiber 1)", "intensity");
  for (int i = 0; i < n; ++i) {
    char serial[ZELTOCOM_SERIAL_NUMBER_SIZE] = "";
    char xy[EXAMPLE_ANSWER_BYTES] = "";
    char intensity[EXAMPLE_ANSWER_BYTES] = "";
    ZeltoCom_GetSNByPort(serial, paths[i]);
    if (results[i] == 1) {
      ZeltoCom_Send(paths[i], "GETxy01", xy);
      ZeltoCom_Send(paths[i], "GETINTENSITY01", intensity);
    }
    printf("%-14s %-12s %-7d %-16s %s\n", paths[i], serial, results[i], xy, intensity);
  }
  ZeltoCom_Close_Multi(results, paths, n);
  return captured == 1 ? 0 : 1;
}
