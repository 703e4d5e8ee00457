"""The buffer sizes of zeltocom.h (its ZELTOCOM_ macros, without the
prefix), in bytes with the terminating NUL. The reference check fails when
they differ from the header's."""

ERROR_TEXT_SIZE = 512
DEVICE_PATH_SIZE = 254
SERIAL_NUMBER_SIZE = 15
MAX_ANSWER_LENGTH = 1048576
ANSWER_SIZE = MAX_ANSWER_LENGTH + 1
