// The simulated appliance: files, disks and time of the appliance below one root folder.
//
// It stands between a program and the C library, preloaded or linked in, and is configured by
// environment variables that are read at every use. Without APPLIANCE_ROOT it does nothing.
//
//   APPLIANCE_ROOT   root folder; the appliance's absolute paths are looked up below it
//   APPLIANCE_EPOCH  what time() returns at the start; the real time at first use by default
//   APPLIANCE_SPEED  simulated seconds per real second of waiting; 0 or unset: waits take no time
//
//   <root>/journal   what happened: `<seconds since start> <kind> <text>`, one event a line. The
//                    first one, `preload`, tells that the simulation stands before the program.
//   <root>/outside   in the same form, what the program opened for writing, made, renamed or
//                    removed outside the root (/dev/null apart): there should be none
//   <root>/timeline  what shall happen while the program waits, in ascending order of seconds:
//                    `<seconds> write <path> <text>`, `<seconds> remove <path>`,
//                    `<seconds> mode <path> <octal>`, `<seconds> signal <NAME>`, where \n in a text
//                    is a line feed; in an enclosure
//                    `<seconds> load <sdX or all> <idle, seek or standby>`, `<seconds> outside
//                    <degrees>`, `<seconds> fan <blocked or free>`, `<seconds> dust <factor>`,
//                    `<seconds> celsius <degrees>,<degrees>...`: measured temperatures of the
//                    disks, the first one the sensor's too, instead of what the heat would make of
//                    them
//   <root>/watched   files, a path a line, that the journal shows at the beginning of a wait when
//                    they have changed since the one before: `holds <path> <text>`, or `lacks
//                    <path>`
//   <root>/clock     when it is there at the first wait: the seconds since the start, for all
//                    programs; time passes only when somebody writes it anew, in one step. What a
//                    program has come to before it really waits stands in <root>/clock_reached.
//   <root>/enclosure what heats up and what cools (see enclosure.h and the lab's examples): those
//                    files that it names and that are there follow its state as time passes, in the
//                    program that waits, at the end of each wait and at each event. It begins cold,
//                    at 0 seconds, with every program that is started: let one wait at a time.
//                    What is wrong with it, the journal says.
//   <root>/enclosure.csv  a line a minute, and one for the start: seconds, degrees Celsius outside,
//                    of the air and of the sensor, command, revolutions a minute, m3/s, W of the
//                    fan, degrees Celsius of each disk; then of the time since the line
//                    before: mean speed, mean W, mean of (speed / full speed)^5, and the warmest
//                    moment of the sensor and of each disk
//   <root>/select    a number: what the next select() returns at once, with no descriptor marked;
//                    the file is gone then
//   <root>/fork      a signal's name: what the child of the next fork() gets at once; the file is
//                    gone then
//   <root>/syslog    a named pipe: the system log hangs until somebody opens it for reading
//   <root>/dev/sdX   a disk: the line `# disk`, then lines of `name=value` (see disks.cpp)
//
// Time is that of the main thread. Another thread (a fuzzer's watchdog) waits for real.
#ifndef APPLIANCE_H
#define APPLIANCE_H

extern "C" {

// Adds a line to the journal; control bytes and backslashes are written as \n or \xNN. A journal
// that cannot be written is silently left alone; errno keeps its value.
void appliance_note(const char* kind, const char* text);

// Whole simulated seconds since the start.
long long appliance_elapsed();

// Back to the start: no time has passed and the whole timeline lies ahead. Files stay as they are.
void appliance_reset();
}

#endif
