/* Sorts chromaticity points into the bins of a bin file.
 *
 *   bins [VECFILE [X Y]...]
 *
 * Without a file, the bins.vec beside this example; without points, a few
 * fixed ones. When ZELTOCOM_PORTS names ports, the first one's analyser also
 * captures and its fiber 1 is sorted. Each point gets the bin that holds it
 * (ZeltoCom_Binning_FindBin) and, where it differs, the answer of the
 * one-crossing rule (ZeltoCom_Binning_GetBinFromVECFile) in brackets. */
#include "example.h"

#ifndef EXAMPLE_BINS_FILE
#define EXAMPLE_BINS_FILE "bins.vec"
#endif

/* A name is at most a line of the file. */
#define EXAMPLE_BIN_NAME_BYTES 1024

static void print_bin(const char* file, float x, float y) {
  char exact[EXAMPLE_BIN_NAME_BYTES] = "-";
  char rule[EXAMPLE_BIN_NAME_BYTES] = "-";
  const int found = ZeltoCom_Binning_FindBin(file, exact, sizeof exact, x, y);
  /* The one-crossing rule writes no more than the longest name in the file. */
  if (ZeltoCom_Binning_GetBinFromVECFile(file, rule, x, y) != 1) strcpy(rule, "-");
  if (found < 0) {
    example_check(found, "ZeltoCom_Binning_FindBin");
    return;
  }
  if (strcmp(exact, rule) == 0) {
    printf("%.4f  %.4f  %s\n", x, y, exact);
  } else {
    printf("%.4f  %.4f  %-8s(%s)\n", x, y, exact, rule);
  }
}

/* Fiber 1's x and y after a capture on `port`; 1, or 0 when that failed. */
static int measure(const char* port, float* x, float* y) {
  char answer[EXAMPLE_ANSWER_BYTES] = "";
  int ok = example_check(ZeltoCom_Open(port, 0), "ZeltoCom_Open") &&
           example_check(ZeltoCom_Capture(port, 0, 0, 0), "ZeltoCom_Capture") &&
           example_check(ZeltoCom_Send(port, "GETxy01", answer), "GETxy01");
  if (ok && sscanf(answer, "%f %f", x, y) != 2) {
    fprintf(stderr, "GETxy01: no x and y in \"%s\"\n", answer);
    ok = 0;
  }
  ZeltoCom_Close(port);
  return ok;
}

/* The number in `text`, or 0 when it holds none. */
static int number(const char* text, float* value) {
  char* end = NULL;
  *value = strtof(text, &end);
  return end != text && *end == '\0';
}

int main(int argc, char** argv) {
  const char* file = argc > 1 ? argv[1] : EXAMPLE_BINS_FILE;
  if (argc > 2 && argc % 2 != 0) {
    fprintf(stderr, "usage: bins [VECFILE [X Y]...]\n");
    return 2;
  }
  for (int i = 2; i < argc; ++i) {
    float unused = 0;
    if (!number(argv[i], &unused)) {
      fprintf(stderr, "bins: \"%s\" is no number\n", argv[i]);
      return 2;
    }
  }

  char report[4096] = "";
  const int risky = ZeltoCom_Binning_CheckVECFile(file, report, sizeof report);
  if (risky < 0) return !example_check(risky, file);
  const char* name = strrchr(file, '/') != NULL ? strrchr(file, '/') + 1 : file;
  printf("%s: %d bin(s) the one-crossing rule may misjudge\n%s%s", name, risky, report,
         risky > 0 ? "\n" : "");

  printf("x       y       bin     (one-crossing rule)\n");
  static const float fixed[][2] = {
      {0.3100f, 0.4000f}, {0.3500f, 0.4200f}, {0.2850f, 0.2600f}, {0.6700f, 0.3200f}, {0.2f, 0.6f}};
  if (argc > 2) {
    for (int i = 2; i + 1 < argc; i += 2) {
      float x = 0;
      float y = 0;
      number(argv[i], &x);
      number(argv[i + 1], &y);
      print_bin(file, x, y);
    }
  } else {
    for (size_t i = 0; i < sizeof fixed / sizeof fixed[0]; ++i)
      print_bin(file, fixed[i][0], fixed[i][1]);
  }

  example_path ports[EXAMPLE_MAX_PORTS];
  if (example_ports(0, NULL, ports) == 0) return 0;
  float x = 0;
  float y = 0;
  if (!measure(ports[0], &x, &y)) return 1;
  printf("measured on %s, fiber 1:\n", ports[0]);
  print_bin(file, x, y);
  return 0;
}
