/* Waits for a pulse on an analyser's external trigger input and shows the
 * readings it sent, then runs a sequence of captures on fiber 1 and
 * measures how its light blinks.
 *
 *   trigger_sequence [PORT]
 *
 * Without a port, the first of ZELTOCOM_PORTS. Against zeltosim, type "fire"
 * into it (or kill -USR1 it) while the example waits. */
#include <unistd.h>

#include "example.h"

#define TRIGGER_WAIT_SECONDS 30
#define SAMPLES 200

static void await_trigger(const char* port) {
  /* XYI: one "x y I" line per fiber; PUT form (0), kept until power-off. */
  if (!example_check(ZeltoCom_ExternalTrigger_Enable(port, 0, 0, "XYI", 0, 0, 0),
                     "ZeltoCom_ExternalTrigger_Enable") ||
      !example_check(ZeltoCom_ExternalTrigger_Listen(port), "ZeltoCom_ExternalTrigger_Listen")) {
    return;
  }
  printf("waiting up to %d s for a trigger pulse on %s\n", TRIGGER_WAIT_SECONDS, port);
  fflush(stdout);
  int state = 0;
  for (int polls = 0; state == 0 && polls < TRIGGER_WAIT_SECONDS * 100; ++polls) {
    usleep(10000);
    state = ZeltoCom_ExternalTrigger_isFinished(port);
  }
  char readings[EXAMPLE_ANSWER_BYTES] = "";
  if (state == 1 && ZeltoCom_GetResponseByPort(port, readings) == 1) {
    printf("triggered; x y I per fiber:\n%s\n", readings);
  } else if (state == 0) {
    printf("no pulse came\n");
    ZeltoCom_ExternalTrigger_Abort(port);
  } else {
    example_check(state, "ZeltoCom_ExternalTrigger_isFinished");
  }
  example_check(ZeltoCom_ExternalTrigger_Disable(port, 0), "ZeltoCom_ExternalTrigger_Disable");
}

static void measure_blinking(const char* port) {
  /* SAMPLES captures of 10 ms, back to back, not stored in the instrument. */
  int intensities[SAMPLES] = {0};
  if (!example_check(ZeltoCom_Sequence_Setup(port, 0, 10, 0, SAMPLES, 0),
                     "ZeltoCom_Sequence_Setup") ||
      !example_check(ZeltoCom_Sequence_Capture(port, 1), "ZeltoCom_Sequence_Capture") ||
      !example_check(ZeltoCom_Sequence_ReadIntensity(port, 1, intensities),
                     "ZeltoCom_Sequence_ReadIntensity")) {
    return;
  }
  int runs = 0;
  int durations[SAMPLES];
  int levels[SAMPLES];
  if (example_check(ZeltoCom_Sequence_GetPattern(port, intensities, &runs, durations, levels),
                    "ZeltoCom_Sequence_GetPattern")) {
    printf("fiber 1 over %d ms: %d runs (ms at level)", SAMPLES * 10, runs);
    for (int i = 0; i < runs && i < 12; ++i) printf(" %d@%d", durations[i], levels[i]);
    printf("%s\n", runs > 12 ? " ..." : "");
  }
  float hz = 0;
  float duty = 0;
  int cycles = 0;
  if (ZeltoCom_Sequence_GetFrequency(port, intensities, &hz, &duty, &cycles) == 1) {
    printf("blinking at %.2f Hz, %.1f %% lit, over %d whole cycles\n", hz, duty, cycles);
  } else {
    printf("no blinking found\n");
  }
}

int main(int argc, char** argv) {
  example_path ports[EXAMPLE_MAX_PORTS];
  if (example_ports(argc > 1 ? 1 : 0, argv + 1, ports) == 0) {
    fprintf(stderr, "usage: trigger_sequence [PORT] (or set ZELTOCOM_PORTS)\n");
    return 2;
  }
  const char* port = ports[0];
  if (!example_check(ZeltoCom_Open(port, 0), "ZeltoCom_Open")) return 1;
  await_trigger(port);
  measure_blinking(port);
  ZeltoCom_Close(port);
  return 0;
}
