/*
 * ZeltoCom: drives LED analysers, spectrometers and their daisy-chained
 * companions over serial lines.
 *
 * Every call blocks until the instrument has answered or a time-out has
 * passed. Results: 1 success; 0 a failure reported by the instrument or a
 * time-out; -1 a refused argument, an unknown port or a failed write (each
 * function below states its exact values). After a failure the error text is
 * read with ZeltoCom_GetError_Description and its per-port forms.
 * Buffers are the caller's; each function states the room it needs. No call
 * throws, and bad arguments get a failure result and an error text.
 *
 * Threads: any call may run on any thread. Calls on different ports run at
 * once. Calls on one port from several threads take turns, each exchange
 * whole (command to answer), so no thread receives another's answer; a
 * ZeltoCom_Close or ZeltoCom_CloseAll from another thread ends the exchange
 * in progress on that port at once ("The port was closed during the
 * exchange").
 * ZeltoCom_GetError_Description holds the last error of the whole process,
 * whichever thread caused it; ZeltoCom_GetError_DescriptionByPort holds the
 * last error of one port, and is the one to read in multi-threaded hosts.
 *
 * Time: all time-outs are in milliseconds. By default a waiting thread
 * sleeps in poll() and every time-out counts monotonic wall-clock time: a
 * waiting port costs no processor and a busy machine cannot stretch a
 * time-out. With ZELTOCOM_WAIT=busy in the environment when the library is
 * loaded, a waiting thread polls its line and counts its own processor time
 * (one busy processor per waiting port), and still ends at the latest twice
 * its time-out plus a second of wall-clock time after the last byte: a
 * yielding thread earns little processor time on a loaded machine, and such
 * time-outs used to stretch from one second to minutes.
 *
 * Lines: an open port belongs to this process alone (an exclusive lock):
 * another process that opens it gets "The port is used by another process".
 * An instrument that is unplugged ends the call at once with "Device
 * disconnected"; close the port, and open it again when it is back. A line
 * that never stops sending gives "The line does not stop sending", and an
 * answer beyond 1 MiB "Answer too long"; however fast bytes come, no
 * exchange lasts longer than its time-out plus 30 s.
 *
 * Answers: nothing that arrived before a command was written, and nothing
 * after its answer's end marker, is part of its answer. After a time-out the
 * next exchange on the line first sends "GETSERIAL" and throws away
 * everything up to the serial number of the instrument holding the line, so a
 * late answer is never taken for a later command's; if the instrument does
 * not answer that either, the call reports a time-out without sending its
 * command. Trigger reports that arrive while no listener waits become the
 * port's last response (ZeltoCom_GetResponseByPort), never an answer.
 *
 * docs/reference.md documents every function below: each result, the exact
 * error texts, the buffers and which calls may run at once.
 */
#ifndef ZELTOCOM_H
#define ZELTOCOM_H

#include "zeltocom_version.h"

/* Buffer sizes in bytes, terminating NUL included: enough for anything the
 * library writes into such a buffer. */
/* An error text. */
#define ZELTOCOM_ERROR_TEXT_SIZE 512
/* A device path: no port with a path longer than 253 characters opens. */
#define ZELTOCOM_DEVICE_PATH_SIZE 254
/* A serial number: at most 14 characters. */
#define ZELTOCOM_SERIAL_NUMBER_SIZE 15
/* The longest answer the library returns (a longer one fails with "Answer
 * too long"), and a buffer that holds any answer. */
#define ZELTOCOM_MAX_ANSWER_LENGTH 1048576
#define ZELTOCOM_ANSWER_SIZE (ZELTOCOM_MAX_ANSWER_LENGTH + 1)

#if defined(__GNUC__)
#define ZELTOCOM_API __attribute__((visibility("default")))
#else
#define ZELTOCOM_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Error texts (buffers of at least 512 bytes) ---- */

/* The text of the library's last error; returns `buffer`. */
ZELTOCOM_API char* ZeltoCom_GetError_Description(char* buffer);
/* The last error of the open port at `devicePath`, or the library's last
 * error when no such port is open; returns `buffer`. A failure of a chained
 * instrument that held the line is not among them: read the library's. */
ZELTOCOM_API char* ZeltoCom_GetError_DescriptionByPort(const char* devicePath, char* buffer);
/* The same, for the open port whose instrument has `serialNumber`. */
ZELTOCOM_API char* ZeltoCom_GetError_DescriptionBySN(const char* serialNumber, char* buffer);

/* ---- Opening and closing ---- */

/* Opens the instrument at `devicePath`. `baudrate` 0 searches the rate (the
 * rate this path last worked at first), else one of 9600, 19200, 38400,
 * 57600, 115200, 230400, 460800, 921600. 1 opened; 0 failure; -1 invalid
 * baud rate. */
ZELTOCOM_API int ZeltoCom_Open(const char* devicePath, int baudrate);
/* Finds the instrument with `serialNumber` among the detected ports and opens
 * it. Results as ZeltoCom_Open. */
ZELTOCOM_API int ZeltoCom_OpenSN(const char* serialNumber, int baudrate);
/* Checks that a project file named the device ID `deviceID`; opens nothing.
 * 1 known; -1 otherwise. */
ZELTOCOM_API int ZeltoCom_OpenID(const char* deviceID);
/* Closes the port with its daisy chain, once the call in progress on it has
 * ended; a trigger listener ends. 1 closed; 0 not open ("The device path is
 * not in use"). */
ZELTOCOM_API int ZeltoCom_Close(const char* devicePath);
/* The same for the open port whose instrument has `serialNumber`. */
ZELTOCOM_API int ZeltoCom_CloseSN(const char* serialNumber);
/* Closes every open port; always 1. */
ZELTOCOM_API int ZeltoCom_CloseAll(void);
/* Thread bodies: store the result of ZeltoCom_Close / ZeltoCom_CloseSN in
 * `*result` and return it. */
ZELTOCOM_API int ZeltoCom_Close_Multi_Thread(int* result, const char* devicePath);
ZELTOCOM_API int ZeltoCom_CloseSN_Multi_Thread(int* result, const char* serialNumber);

/* ---- Ports and the library ---- */

/* Writes the loaded library's version, "v" followed by its
 * ZELTOCOM_VERSION_STRING (at least 7 bytes). */
ZELTOCOM_API void ZeltoCom_GetLibraryVersion(char* buffer);
/* Writes a line for every command sent and every answer waited for (with a
 * monotonic timestamp, the port path, the instrument's serial number, the
 * bytes escaped, how the answer ended, its outcome and the time it took) to
 * `destination`: "stderr", or a file path (appended to). Null or "" stops
 * the trace. 1 on success; -1 when the file cannot be opened ("Unable to
 * open trace file PATH"), the trace then going on as it was. The environment
 * variable ZELTOCOM_TRACE names a destination when the library is loaded. */
ZELTOCOM_API int ZeltoCom_SetTrace(const char* destination);
/* Lists the machine's serial ports afresh (or the paths in the environment
 * variable ZELTOCOM_PORTS, separated by ';'); returns their number. */
ZELTOCOM_API int ZeltoCom_EnumPorts(void);
/* Copies the path of each open port into paths[0], paths[1], ... (254 bytes
 * each); returns their number, 0 on failure. */
ZELTOCOM_API int ZeltoCom_GetOpenedPorts(char** paths);
/* The same as one text, the paths joined by `separator`. */
ZELTOCOM_API int ZeltoCom_GetOpenedPortsS(char* buffer, int separator);
/* 1 when the last enumeration listed `devicePath`, else 0. */
ZELTOCOM_API int ZeltoCom_IsPortAvailable(const char* devicePath);
/* Path of the open port whose instrument has `serialNumber` (254 bytes): 1,
 * or -1. Nothing is sent. */
ZELTOCOM_API int ZeltoCom_GetPortBySN(char* devicePath, const char* serialNumber);
/* Serial number of the instrument on the open port `devicePath` (15 bytes):
 * 1, or -1. Nothing is sent. */
ZELTOCOM_API int ZeltoCom_GetSNByPort(char* serialNumber, const char* devicePath);
/* Path of the project device `deviceID` (254 bytes), or "" when unknown;
 * returns `devicePath`. */
ZELTOCOM_API char* ZeltoCom_GetPortByID(const char* deviceID, char* devicePath);
/* The rate the open port `devicePath` works at, or 0 on failure. */
ZELTOCOM_API int ZeltoCom_GetBaudrate(const char* devicePath);

/* The model family of the instrument that holds the line of `devicePath`:
 * writes "FUNCTIONAL", "ICT", "LOWLIGHT", "IR", "ATLAS", "DISPLAY",
 * "SPECTROMETER", "CLR", "CLRSTD" or "UNKONWN" (at least 13 bytes) and
 * returns 1; 0 or -1 on failure. */
ZELTOCOM_API int ZeltoCom_GetDeviceType(const char* devicePath, char* category);

/* ---- Sending commands ---- */

/* Sends `command` (as typed; matched without regard to letter case) to the
 * instrument holding the line of `devicePath` and copies its answer into
 * `response` (may be null; room for the whole answer). "BUSGET<serial>" and
 * "BUSFREE" hand the line of a daisy chain over. 1 answer received; 0
 * "Timeout", "Syntax error" or an answer cut to the response buffer size; -1
 * no command, port not open or write failed. The time-out is that of
 * ZeltoCom_SetResponseTimeout, counted from the last byte received. */
ZELTOCOM_API int ZeltoCom_Send(const char* devicePath, const char* command, char* response);
/* ZeltoCom_Send to the open port whose own instrument has `serialNumber`. */
ZELTOCOM_API int ZeltoCom_SendSN(const char* serialNumber, const char* command, char* response);
/* ZeltoCom_Send to the port of the project device `deviceID` (whichever
 * instrument holds its line answers); -1 "ID not found". */
ZELTOCOM_API int ZeltoCom_SendByID(const char* deviceID, const char* command, char* response);
/* Thread body: stores the result of ZeltoCom_Send in `*result`, returns it. */
ZELTOCOM_API int ZeltoCom_Send_Multi_Thread(int* result, const char* devicePath,
                                            const char* command, char* response);
/* The time-out of every plain send, in ms (initially 2500); returns 1, or -1
 * for a negative time-out. */
ZELTOCOM_API int ZeltoCom_SetResponseTimeout(int milliseconds);
/* `mode` 1: capture time-outs of this port follow the instrument's settings;
 * any other value: they are the time-out of ZeltoCom_SetResponseTimeout.
 * 1, or -1 when the port is not open. */
ZELTOCOM_API int ZeltoCom_SetResponseTimeoutAuto(const char* devicePath, int mode);
/* From now on no call writes more than `bytes` bytes, terminator included,
 * into a host's answer buffer (the `response` of every send); a longer answer
 * is cut there and the call returns 0 with "Answer longer than the response
 * buffer", while the whole answer stays kept for the port. 0, the initial
 * value, means no limit: the buffer must then hold the whole answer. 1, or
 * -1 for a negative size. */
ZELTOCOM_API int ZeltoCom_SetResponseBufferSize(int bytes);

/* ---- Captures ---- */

/* LED analyser capture of all fibres. `pwm` non-zero for PWM mode; `range` 0
 * automatic or 1 to 6; `pwmFrames` 0 for the default, at most 15 with `pwm`
 * 1. 1 captured; 0 time-out, syntax error or an over-range, under-range or
 * stability report (see the error text); -1 refused argument, spectrometer,
 * or write failure. Read the results with ZeltoCom_Send ("GETRGBI01", ...). */
ZELTOCOM_API int ZeltoCom_Capture(const char* devicePath, int pwm, int range, int pwmFrames);
/* Spectrometer capture. `manualExposure` 1 uses `exposure` (ms; at most 4000
 * on "-W2" models, 15000 on others), else the instrument chooses. `pwm`
 * switches the PWM mode of "-W2" models. Results as ZeltoCom_Capture. */
ZELTOCOM_API int ZeltoCom_SpectrometerCapture(const char* devicePath, int pwm, int manualExposure,
                                              float exposure);
/* Dark reference of a spectrometer; arguments and results as above. */
ZELTOCOM_API int ZeltoCom_SpectrometerDark(const char* devicePath, int pwm, int manualExposure,
                                           float exposure);

/* ---- Daisy chains: instruments behind the instrument on a port ---- */

/* Makes the instrument with `serialNumber`, chained behind the open port
 * `devicePath`, known to the library (it must answer "OK" when handed the
 * line); the line goes back to the port's own instrument afterwards. 1 added
 * (or the port's own serial number); 0 failure. */
ZELTOCOM_API int ZeltoCom_DaisyChain_Add(const char* devicePath, const char* serialNumber);
/* Forgets a chained instrument; nothing is sent. 1 removed (or the port's own
 * serial number); 0 not found. Removed while it holds the line, it still
 * does: the port's next exchange frees the line first ("BUSFREE"), so that
 * it reaches the port's own instrument. */
ZELTOCOM_API int ZeltoCom_DaisyChain_Del(const char* devicePath, const char* serialNumber);
/* Forgets every chained instrument of the port, freeing the line as Del
 * does. 1, or 0 when not open. */
ZELTOCOM_API int ZeltoCom_DaisyChain_Clear(const char* devicePath);
/* Hands the line to the instrument with `serialNumber` (the port's own serial
 * number addresses the port's instrument) and sends `command` to it, as
 * ZeltoCom_Send, except that a port not open gives 0. The line stays with
 * that instrument. */
ZELTOCOM_API int ZeltoCom_DaisyChain_Send(const char* devicePath, const char* serialNumber,
                                          const char* command, char* response);
/* Starts a capture on the port's instrument and every chained analyser at
 * once ("BUSC"), then asks each ("BUSCE<serial>") until all have ended.
 * Arguments as ZeltoCom_Capture. 1 all ended; 0 time-out or refusal; -1
 * refused argument or write failure. Read the values with
 * ZeltoCom_DaisyChain_Send. */
ZELTOCOM_API int ZeltoCom_DaisyChain_Capture(const char* devicePath, int pwm, int range,
                                             int pwmFrames);
/* ZeltoCom_SpectrometerCapture / ZeltoCom_SpectrometerDark of the chained
 * spectrometer with `serialNumber`; the line stays with it. Results as
 * those calls. */
ZELTOCOM_API int ZeltoCom_DaisyChain_SpectrometerCapture(const char* devicePath,
                                                         const char* serialNumber, int pwm,
                                                         int manualExposure, float exposure);
ZELTOCOM_API int ZeltoCom_DaisyChain_SpectrometerDark(const char* devicePath,
                                                      const char* serialNumber, int pwm,
                                                      int manualExposure, float exposure);
/* Copies the last answer received on the port (whichever instrument of its
 * chain gave it, a finished trigger listener's message, or a trigger report
 * that came while the line was busy with something else; "" when none) into
 * `buffer` (room for it whole, or cut to ZeltoCom_SetResponseBufferSize). 1,
 * or 0 on failure. Does not wait for the line: a running trigger listener
 * goes on waiting. */
ZELTOCOM_API int ZeltoCom_GetResponseByPort(const char* devicePath, char* buffer);

/* ---- Project and bin files ---- */

/* Reads the project file at `path` and opens its instruments. The file is
 * text, lines of at most 1023 characters; empty lines and lines starting with
 * '#' are skipped. Each instrument is a section from a line "[DEVICE]" to a
 * line "[END]" of "KEY=value" lines (no blank before '='): PORT (or DEVPATH),
 * ID, SERIALNUMBER, BAUDRATE (0 or missing: search the rate) and ROLE
 * (DAISY-CHAIN for an instrument behind the master named earlier on the
 * same PORT). The IDs then address the instruments (ZeltoCom_SendByID,
 * ZeltoCom_GetPortByID). 1 all opened; 0 file unreadable or "No devices
 * found"; -1 a section error or an instrument that did not open (those
 * opened by this call are closed again, and the error text is that of the
 * failing open). */
ZELTOCOM_API int ZeltoCom_OpenProject(const char* path);
/* Closes the directly opened instruments of the last project (their chains
 * with them); the IDs stay known. 1 all closed; 0 "No devices found" or a
 * port that was not open. */
ZELTOCOM_API int ZeltoCom_CloseProject(void);
/* Writes into `binName` (room for the longest bin name) the name of the
 * first bin of the file at `path` (extension .vec, any case) that holds the
 * chromaticity point (x, y). Each line of the file of 6 characters or more
 * is one bin, "NAME=x,y;x,y;..." or without "NAME=" for the name "Area N", N
 * the bin's position in the file; a point is in a bin when the segment from
 * (0, 0) to it crosses exactly one of the polygon's edges, vertical edges
 * not counted. That established rule misjudges some shapes (see
 * ZeltoCom_Binning_CheckVECFile); ZeltoCom_Binning_FindBin does not. 1
 * found; 0 in no bin; -1 bad path, unreadable or malformed file. */
ZELTOCOM_API int ZeltoCom_Binning_GetBinFromVECFile(const char* path, char* binName, float x,
                                                    float y);
/* The same file, read and checked alike, with an exact test: a point is in
 * a bin when it lies inside the polygon by the even-odd rule (every edge
 * counts) or on an edge or corner. The first bin holding (x, y) wins; its
 * name is cut to `binNameSize` - 1 characters. 1 found; 0 in no bin; -1 bad
 * path, no buffer or `binNameSize` below 1, x or y not finite, unreadable or
 * malformed file. */
ZELTOCOM_API int ZeltoCom_Binning_FindBin(const char* path, char* binName, int binNameSize, float x,
                                          float y);
/* Lists in `report` the bins of the file whose shape lets the rule of
 * ZeltoCom_Binning_GetBinFromVECFile misjudge some of their points, one line
 * each, "NAME: reason; reason", lines joined by '\n' and the whole cut to
 * `reportSize` - 1 characters. Reasons: "an edge parallel or nearly parallel
 * to the y axis" (rising 1000 times its run or more), "not convex", "holds
 * the origin", "no area (its corners lie on one line)", "a corner that is
 * not a finite number". In any bin, that rule may misjudge points on an edge
 * and points in line with the origin and a corner. The number of bins
 * listed; -1 as for ZeltoCom_Binning_FindBin. */
ZELTOCOM_API int ZeltoCom_Binning_CheckVECFile(const char* path, char* report, int reportSize);
/* ---- Many ports at once ----
 * Worker threads take the ports one at a time, one thread per port up to 64
 * (more ports wait their turn); the call returns when every worker has
 * ended.
 * Arrays are the caller's, one entry per port, index i of each belonging to
 * the same port; results are in the caller's order. A negative count or a
 * missing array is refused (-1 and an error text). After a failure, the
 * library's error text is that of the first port that failed. */

/* Connection checks: find the port of an instrument by its serial number.
 * An instrument already open is found without any traffic; other enumerated
 * ports are probed at every admitted rate, the one the port last worked at
 * first, whatever `baudrate` says (it must still be 0 or an admitted rate),
 * and closed again, except ports being opened or held by another process. */
/* Writes the path of the port of `serialNumber` (at least 255 bytes) or ""
 * into `portOut`; 1 found, 0 not found ("Unable to find device"), -1
 * refused. */
ZELTOCOM_API int ZeltoCom_IsConnected(char* portOut, const char* serialNumber, int baudrate);
/* portsOut[i] (at least 255 bytes each) receives the path of
 * serialNumbers[i] or "". The number found; -1 for "No ports detected",
 * "Invalid baud-rate" or "No serial numbers given". */
ZELTOCOM_API int ZeltoCom_AreConnected(char** portsOut, const char* const* serialNumbers,
                                       int nSerials, int baudrate);
/* The same with the serial numbers as one text joined by `separator`:
 * `portsOut` receives one field per serial number, in order, joined by the
 * same separator, each the path found or empty ("a;;c"). */
ZELTOCOM_API int ZeltoCom_AreConnectedS(char* portsOut, const char* serialNumbers, int separator,
                                        int baudrate);
/* Thread body of a connection check on one port: writes `devicePath` into
 * portsOut[i] for the first serialNumbers[i] its instrument carries (an open
 * port answers from its record, another is probed, the rate searched with
 * the remembered one first; `baudrate` must be 0 or an admitted rate). 1
 * found, 0 not found, -1 refused. */
ZELTOCOM_API int ZeltoCom_Isconnected_thread(char** portsOut, const char* devicePath,
                                             const char* const* serialNumbers, int nSerials,
                                             int baudrate);

/* Opens the listed paths at once. 1 all opened; -1 no ports detected or
 * invalid baud rate; otherwise the first failing result in list order, after
 * every port this call opened has been closed again. On success the ports
 * are listed in the caller's order among the open ports. */
ZELTOCOM_API int ZeltoCom_Open_Multi(int* returnValues, const char* const* devicePaths, int nPorts,
                                     int baudrate);
/* The same by serial number; a serial number found on no port gives -1. */
ZELTOCOM_API int ZeltoCom_OpenSN_Multi(int* returnValues, const char* const* serialNumbers,
                                       int nPorts, int baudrate);
/* Closes the listed ports at once: 1 all closed, 0 if any was not open. */
ZELTOCOM_API int ZeltoCom_Close_Multi(int* returnValues, const char* const* devicePaths,
                                      int nPorts);
/* The same by serial number. */
ZELTOCOM_API int ZeltoCom_CloseSN_Multi(int* returnValues, const char* const* serialNumbers,
                                        int nPorts);
/* Thread body: stores the result of ZeltoCom_Open in `*result`, returns it. */
ZELTOCOM_API int ZeltoCom_Open_Multi_Thread(int* result, const char* devicePath, int baudrate);

/* Parallel sends: commands[i] to port i, its answer into responses[i] (room
 * as for ZeltoCom_Send; an entry may be null). 1 every port answered; -1 a
 * refusal or any port's -1, wherever it stands; else 0. */
ZELTOCOM_API int ZeltoCom_Send_Multi(int* returnValues, const char* const* devicePaths, int nPorts,
                                     const char* const* commands, char* const* responses);
/* By serial number; one that is not open gets -1 and no send. */
ZELTOCOM_API int ZeltoCom_SendSN_Multi(int* returnValues, const char* const* serialNumbers,
                                       int nPorts, const char* const* commands,
                                       char* const* responses);
/* To the first nPorts paths of `devicePathList` (joined by ';') the commands
 * of `commandList` (joined by `commandSeparator`), answers kept per port
 * only. */
ZELTOCOM_API int ZeltoCom_Send_Multi_NR(int* returnValues, const char* devicePathList, int nPorts,
                                        const char* commandList, char commandSeparator);
/* `command` to every open port, in the order of ZeltoCom_GetOpenedPorts; one
 * result and one response buffer per open port. */
ZELTOCOM_API int ZeltoCom_SendToAll(int* returnValues, const char* command, char* const* responses);
/* The same without response buffers: answers are kept per port only. */
ZELTOCOM_API int ZeltoCom_SendToAll_NR(int* returnValues, const char* command);
/* Thread body of ZeltoCom_SendToAll: as ZeltoCom_Send_Multi_Thread. */
ZELTOCOM_API int ZeltoCom_SendToAll_Thread(int* result, const char* devicePath, const char* command,
                                           char* response);

/* Captures on every open port at once, one result per open port. 1 all
 * captured; -1 any port's -1 or a missing array; else 0 (also "No ports
 * have been opened"). */
ZELTOCOM_API int ZeltoCom_CaptureFromAll(int* returnValues, int pwm, int range, int pwmFrames);
/* Spectrometer captures on every open spectrometer at once; results packed
 * from returnValues[0], one per spectrometer; 0 with "No Spectrometers have
 * been found" when there is none. */
ZELTOCOM_API int ZeltoCom_CaptureFromAllSpectrometers(int* returnValues, int pwm,
                                                      int manualExposure, float exposure);
/* Thread bodies: store the result of ZeltoCom_Capture /
 * ZeltoCom_SpectrometerCapture in `*result` and return it. */
ZELTOCOM_API int ZeltoCom_CaptureFromAll_Thread(int* result, const char* devicePath, int pwm,
                                                int range, int pwmFrames);
ZELTOCOM_API int ZeltoCom_CaptureFromAllSpectrometers_Thread(int* result, const char* devicePath,
                                                             int pwm, int manualExposure,
                                                             float exposure);

/* Detection: opens every enumerated port at once (`baudrate` 0 searching the
 * rate), keeps those whose instrument passes the filters, and closes them
 * again; ports open already are not reported. The number detected; 0 when
 * nothing is enumerated; -1 for an invalid baud rate. */
/* Paths into detectedPorts[0], [1], ... (one 255-byte buffer per enumerated
 * port). */
ZELTOCOM_API int ZeltoCom_Detect(char** detectedPorts, int baudrate);
/* The paths as one text joined by `separator`. */
ZELTOCOM_API int ZeltoCom_DetectS(char* detectedPortsText, char separator, int baudrate);
/* Serial numbers (25-byte buffers, one per enumerated port) instead of paths. */
ZELTOCOM_API int ZeltoCom_DetectSN(char** detectedSerialNumbers, int baudrate);
/* Thread body of a detection: 1 into `*result` when an instrument that
 * passes the filters answered on `devicePath`, its serial number into
 * `serialNumber` (25 bytes; may be null); else 0. */
ZELTOCOM_API int ZeltoCom_Detect_Thread(int* result, const char* devicePath, int baudrate,
                                        char* serialNumber);
/* Adds models to the filters of later detections: a category word
 * ("ANALYSER", "FUNCTIONAL", "ICT", "LOWLIGHT", "IR", "SPECTROMETER",
 * "DISPLAY", "CLR", "ATLAS"; any letter case; the first contained decides)
 * adds its models, any other text itself. A detection keeps an instrument
 * whose "GETHW" answer, upper-cased, equals a filter, and answered within
 * 180 ms. No filter keeps every instrument. */
ZELTOCOM_API void ZeltoCom_AddDetectionFilter(const char* filter);
/* Removes every filter: later detections keep every instrument. */
ZELTOCOM_API void ZeltoCom_ClearDetectionFilters(void);
/* The enumerated ports, without probing, into portsList[0], [1], ... (at
 * least 8 buffers, the first 8 emptied first); their number, 0 if none. */
ZELTOCOM_API int ZeltoCom_ListPortsDetected(char** portsList);
/* The same as one text joined by `separator`. */
ZELTOCOM_API int ZeltoCom_ListPortsDetectedTxt(char* portsText, const char* separator);

/* ---- User calibration ----
 * Each call takes the path of an open port and a fiber from 1 to the
 * instrument's fiber count: an unknown port gives -1 with "The port is not
 * in use", another fiber -1 with "Fiber should be a value between 1 and N".
 * Values go to the instrument that holds the port's line, in the SET form
 * (stored in the instrument) or the PUT form (in use until it is switched
 * off), as `setMode` says; resets and adjustments always store. Results: 1
 * done; 0 the instrument refused or did not answer (the error text names
 * the step), or answered with what is no finite number of the reading's
 * type ("Wrong reading from the instrument"); -1 a refused argument. An
 * adjustment whose result its command cannot carry writes nothing (0). */

/* RGB adjustment against three reference lights (red, green, blue) whose
 * true chromaticity and absolute intensity are known; the instrument
 * computes the fiber's colour matrix. The raw readings are kept per fiber
 * and colour for the whole process, shared by all ports. */
/* Returns the fiber's colour matrix to its factory state and stores an
 * absolute-intensity factor of 1.0. */
ZELTOCOM_API int ZeltoCom_UserCal_ResetRGBAdj(const char* devPath, int fiber);
/* Records the fiber's raw colour readings of the last capture as those of
 * the reference light `colour` ('R', 'G' or 'B'; the colour is checked after
 * the readings). 0 with "Under-range detected" for a zero intensity. */
ZELTOCOM_API int ZeltoCom_UserCal_TakeRGBCurrentValues(const char* devPath, int fiber, char colour);
/* Sends the recorded raw readings (zeros for a colour never taken) and the
 * true values of the three lights, then has the instrument compute and
 * store the matrix. */
ZELTOCOM_API int ZeltoCom_UserCal_AdjustRGB(const char* devPath, int fiber, float xRed, float yRed,
                                            double intensityRed, float xGreen, float yGreen,
                                            double intensityGreen, float xBlue, float yBlue,
                                            double intensityBlue);

/* Chromaticity offsets, added by the instrument to its x and y readings. */
/* Stores the offsets 0 and 0. */
ZELTOCOM_API int ZeltoCom_UserCal_ResetxyOffsets(const char* devPath, int fiber);
/* Reads the offsets; `x` and `y` are written only from answers received. */
ZELTOCOM_API int ZeltoCom_UserCal_GetxyOffsets(const char* devPath, int fiber, float* x, float* y);
/* Writes the offsets (three decimals), stored unless `setMode` is 0. */
ZELTOCOM_API int ZeltoCom_UserCal_SetxyOffsets(const char* devPath, int fiber, float x, float y,
                                               int setMode);
/* Captures (automatic range), reads the fiber's x and y and stores offsets
 * that move them onto the reference. */
ZELTOCOM_API int ZeltoCom_UserCal_AdjustxyOffsets(const char* devPath, int fiber, float xReference,
                                                  float yReference);

/* Wavelength offset in nm, added by the instrument to its dominant
 * wavelength reading. */
/* Stores the offset 0. */
ZELTOCOM_API int ZeltoCom_UserCal_ResetWavelengthOffset(const char* devPath, int fiber);
/* Reads the offset into `*offset` (written only from an answer received). */
ZELTOCOM_API int ZeltoCom_UserCal_GetWavelengthOffset(const char* devPath, int fiber, int* offset);
/* Writes the offset (-999 to 999, else -1), stored unless `setMode` is 0. */
ZELTOCOM_API int ZeltoCom_UserCal_SetWavelengthOffset(const char* devPath, int fiber, int offset,
                                                      int setMode);
/* Captures (automatic range), reads the dominant wavelength and stores the
 * offset that moves it onto the reference; 0 and nothing written when that
 * falls outside -999 to 999. */
ZELTOCOM_API int ZeltoCom_UserCal_AdjustWavelengthOffset(const char* devPath, int fiber,
                                                         int wavelengthReference);

/* Intensity gain in percent (50 to 150), applied by the instrument to its
 * intensity readings. */
/* Stores the gain 100. */
ZELTOCOM_API int ZeltoCom_UserCal_ResetIntensityGain(const char* devPath, int fiber);
/* Reads the gain into `*gain` (written only from an answer received). */
ZELTOCOM_API int ZeltoCom_UserCal_GetIntensityGain(const char* devPath, int fiber, int* gain);
/* Writes the gain, stored only when `setMode` is 1; -1 outside 50 to 150. */
ZELTOCOM_API int ZeltoCom_UserCal_SetIntensityGain(const char* devPath, int fiber, int gain,
                                                   int setMode);
/* Captures (automatic range), reads the intensity (as a linear value in
 * either intensity mode) and stores gain x reference / intensity, rounded;
 * 0 and nothing written when that falls outside 50 to 150. */
ZELTOCOM_API int ZeltoCom_UserCal_AdjustIntensityGain(const char* devPath, int fiber,
                                                      int intensityReference);

/* Absolute-intensity factor, applied by the instrument to its absolute
 * intensity readings. */
/* Stores the factor 1.0. */
ZELTOCOM_API int ZeltoCom_UserCal_ResetAbsIntFactor(const char* devPath, int fiber);
/* Reads the factor into `*factor` (written only from an answer received). */
ZELTOCOM_API int ZeltoCom_UserCal_GetAbsIntFactor(const char* devPath, int fiber, double* factor);
/* Writes the factor (six significant digits), stored only when `setMode` is 1. */
ZELTOCOM_API int ZeltoCom_UserCal_SetAbsIntFactor(const char* devPath, int fiber, double factor,
                                                  int setMode);
/* Captures (automatic range), reads the absolute intensity and stores
 * factor x reference / absolute intensity; 0 and nothing written when that
 * is outside 1E-99 to 1E+99 (its exponent takes two digits). */
ZELTOCOM_API int ZeltoCom_UserCal_AdjustAbsIntFactor(const char* devPath, int fiber,
                                                     double absoluteIntensityReference);
/* ---- Intensity scales ----
 * The instruments report intensity on a logarithmic scale unless switched
 * to linear ("SETLIN"). These follow the instrument's scale, model and
 * firmware (read from it on first use). `captureRange` is the capture's
 * range, 0 (automatic) to 6; `isPWM` non-zero for a capture in PWM mode.
 * 1 with the result; 0 when the instrument's mode, firmware or model cannot
 * be read; -1 for a port not open, a null result pointer or a range out of
 * 0 to 6. */
/* A reported intensity as a linear one: a linear instrument's value comes
 * back unchanged. */
ZELTOCOM_API int ZeltoCom_IntensityToLinear(const char* devPath, int value, int isPWM,
                                            int captureRange, int* linear);
/* A linear intensity taken back to a logarithmic one, whatever scale the
 * instrument reports in, as the pattern thresholds are: with the decimal
 * logarithm, so not the inverse of the above (1200 gives 7127 where the
 * instrument reads 16411). Compare readings in linear units. */
ZELTOCOM_API int ZeltoCom_IntensityToLog(const char* devPath, int value, int isPWM,
                                         int captureRange, int* logarithmic);
/* The scale the instrument reports intensities in: `*logarithmic` 1 for the
 * logarithmic scale, 0 for the linear one. */
ZELTOCOM_API int ZeltoCom_GetIntensityScale(const char* devPath, int* logarithmic);
/* ---- External trigger ----
 * The instrument captures when a pulse reaches its trigger input and then
 * sends its readings (or "OK") unasked. A listener thread per port waits
 * for that message without a time limit and without loading a processor;
 * the host polls it with ZeltoCom_ExternalTrigger_isFinished and then reads
 * the message with ZeltoCom_GetResponseByPort. Any other call that uses the
 * port (ZeltoCom_ExternalTrigger_Abort, a send, a close, ...) ends a running
 * listener within 200 ms. Once enabled, reports that come while the host
 * talks to the instrument are never taken for answers. `setMode` 1 selects the instrument's SET
 * commands (kept), any other value its PUT commands (until the next reset). */

/* Configures the trigger: `captureRange` 0 (automatic) to 5, `isPWM` 1 for
 * a PWM capture, `outputType` one of "NONE", "HSI", "XYI", "RGBI", "CCTI",
 * "ABSINT", "WSI" (any letter case, blanks around ignored), delays in ms up
 * to 999 (65000 on a spectrometer; 0 is sent as 1). 1 done; 0 a refused
 * argument; -1 an unknown port or a command the instrument refused. */
ZELTOCOM_API int ZeltoCom_ExternalTrigger_Enable(const char* devicePath, int captureRange,
                                                 int isPWM, const char* outputType,
                                                 unsigned preDelay, unsigned postDelay,
                                                 int setMode);
/* Switches the trigger off: 1, or -1. */
ZELTOCOM_API int ZeltoCom_ExternalTrigger_Disable(const char* devicePath, int setMode);
/* Starts the listener: 1 when one runs (also when one ran already: nothing
 * is sent then); 0 when the trigger is not enabled on the instrument; -1 on
 * failure. */
ZELTOCOM_API int ZeltoCom_ExternalTrigger_Listen(const char* devicePath);
/* Ends the listener and discards what waits on the line: 1, or -1 for an
 * unknown port. */
ZELTOCOM_API int ZeltoCom_ExternalTrigger_Abort(const char* devicePath);
/* Never blocks on a running listener: 0 listening (or never started), 1
 * finished with a message, -1 failed (or unknown port), -2 ended by an
 * abort or by another call on the port. */
ZELTOCOM_API int ZeltoCom_ExternalTrigger_isFinished(const char* devicePath);

/* The library's record of an open port; opaque to hosts. */
#ifdef __cplusplus
namespace zeltocom {
struct s_CommPort;
}
using zeltocom::s_CommPort;
#else
typedef struct s_CommPort s_CommPort;
#endif
/* Thread body of the listener, started by ZeltoCom_ExternalTrigger_Listen
 * only. */
ZELTOCOM_API void ZeltoCom_ExternalTrigger_Listen_thread(s_CommPort* port);
/* ---- Sequences: a burst of equally spaced captures that the instrument
 * takes by itself, read back per fiber, and what they show of a blinking or
 * running light. 1 success; 0 an instrument failure or time-out; -1 a
 * refused argument, an unknown port or a failed write. ---- */
/* Sets up the burst: StartDelay, CaptureTime and TimeBetweenCaptures 0-999 ms,
 * SampleCount 1-9999; setMode 1 stores it in the instrument ("SET..."), any
 * other value only until power-off ("PUT..."). */
ZELTOCOM_API int ZeltoCom_Sequence_Setup(const char* devPath, unsigned StartDelay,
                                         unsigned CaptureTime, unsigned TimeBetweenCaptures,
                                         int SampleCount, int setMode);
/* Runs the burst on one fiber, or on all with fiber 0, and waits for its end. */
ZELTOCOM_API int ZeltoCom_Sequence_Capture(const char* devPath, int fiber);
/* Readouts of one fiber's samples after a sequence capture ("GETINTENSITY",
 * "GETxyI", "GETHSI", "GETRGBI", "GETCCT", "GETWAVELENGTH" with the fiber):
 * each array holds SampleCount elements; a sample whose line does not read
 * whole in the readout's format (a field missing, garbage, a number its type
 * cannot hold, NaN or infinity) keeps its elements. -1 before a set-up or a
 * sequence capture, for a fiber the instrument lacks or a null array; 0 when
 * the answer was late. */
ZELTOCOM_API int ZeltoCom_Sequence_ReadIntensity(const char* devPath, int fiber, int* intensity);
ZELTOCOM_API int ZeltoCom_Sequence_ReadxyI(const char* devPath, int fiber, float* x, float* y,
                                           int* intensity);
ZELTOCOM_API int ZeltoCom_Sequence_ReadHSI(const char* devPath, int fiber, float* hue,
                                           int* saturation, int* intensity);
ZELTOCOM_API int ZeltoCom_Sequence_ReadRGBI(const char* devPath, int fiber, unsigned char* red,
                                            unsigned char* green, unsigned char* blue,
                                            int* intensity);
/* The CCT and the second value the instrument reports beside it, as read. */
ZELTOCOM_API int ZeltoCom_Sequence_ReadCCT(const char* devPath, int fiber, int* CCT,
                                           float* secondValue);
ZELTOCOM_API int ZeltoCom_Sequence_ReadWavelength(const char* devPath, int fiber, int* wavelength);
/* Fixes the intensity (0-99999) at or above which a dark run ends, or at or
 * below which a lit run ends, for ZeltoCom_Sequence_GetPattern; -1 makes it
 * automatic again. Nothing is sent. */
ZELTOCOM_API int ZeltoCom_Sequence_SetPatternThresholdHigh(const char* devPath, int intensity);
ZELTOCOM_API int ZeltoCom_Sequence_SetPatternThresholdLow(const char* devPath, int intensity);
/* Cuts SampleCount intensities into runs: *count runs, each with its
 * duration in ms and its level (maximum lit, minimum dark); the arrays hold
 * SampleCount entries. */
ZELTOCOM_API int ZeltoCom_Sequence_GetPattern(const char* devPath, const int* intensities,
                                              int* count, int* durations, int* levels);
/* Reads fibers 1 to fiberCount and reduces each one's pattern to a delay, a
 * duration and a level (mode 1: from its first runs; else from the first
 * fiber's first run above 0), one entry per fiber. */
ZELTOCOM_API int ZeltoCom_Sequence_GetSweepingPattern(const char* devPath, int fiberCount, int mode,
                                                      int* delays, int* durations, int* levels);
/* Blinking frequency (Hz) and duty cycle (%) of SampleCount intensities, and
 * the number of complete lit runs; 0 (outputs 0) when no blinking is found. */
ZELTOCOM_API int ZeltoCom_Sequence_GetFrequency(const char* devPath, const int* intensities,
                                                float* frequency, float* dutyCycle,
                                                int* cycleCount);
/* Finds sequence settings that resolve a light blinking between minFrequency
 * and maxFrequency Hz on a fiber (at most 125 Hz: 8 samples per cycle of at
 * least 1 ms), by running a trial sequence (not stored in the instrument) and
 * measuring it: 1 with the settings for ZeltoCom_Sequence_Setup; 0 when the
 * light under-ranges or its measured frequency is not in the range (the
 * error text says what was measured); -1 for a range no sequence can hold. */
ZELTOCOM_API int ZeltoCom_Sequence_FindTestSettings(const char* devPath, int fiber,
                                                    float minFrequency, float maxFrequency,
                                                    unsigned* captureTime,
                                                    unsigned* timeBetweenCaptures,
                                                    int* sampleCount);

#ifdef __cplusplus
}
#endif

#endif /* ZELTOCOM_H */
