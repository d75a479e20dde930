// The subcommands of fanctl and what all of them are given.
#pragma once

#include <string>

/// Exit statuses of every subcommand.
enum ExitStatus : int {
  EXIT_FINE = 0,
  EXIT_WARNINGS = 1,
  EXIT_ERRORS = 2,
  EXIT_WRONG_USE = 64,  ///< the command line itself is wrong
};

/// What holds for all subcommands.
struct Options {
  std::string configDir = "/etc/fan_controller";
  bool json = false;
};

/// Says what the service will do with its configuration on this machine, and what is wrong with it.
ExitStatus run_check(const Options& options);

/// Lists chips and disks, and what the service could use.
ExitStatus run_hardware(const Options& options);

struct LinkOptions {
  std::string chip;  ///< as the user named it, "CHIP" or "CHIP:CHANNEL"; empty: as at boot
  std::string folder = "/run/fan_controller/fan";
  bool folderNamed = false;  ///< on the command line
  std::string sensor;        ///< "CHIP" or "CHIP:NUMBER"; empty: no temperature is linked
  bool atBoot = false;
  bool undo = false;
};

/// Builds, or removes, the folder that the service recognises as a fan driver.
ExitStatus run_link(const Options& options, const LinkOptions& link);

struct CurveOptions {
  std::string svgFile;  ///< empty: drawn on the terminal
};

/// Draws the command over the temperature.
ExitStatus run_curve(const Options& options, const CurveOptions& curve);

struct GuardOptions {
  bool dryRun = false;
  bool serviceEnded = false;  ///< the caller knows that the service has ended other than by a stop
  bool noDisks = false;       ///< only the sensor is measured
};

/// Gives the fan the highest command when something is wrong. A warning: it was necessary; an
/// error: it was necessary and could not be done.
ExitStatus run_guard(const Options& options, const GuardOptions& guard);

struct StatusOptions {
  bool prometheus = false;
  std::string outputFile;  ///< for metrics; empty: standard output
  int watchSeconds = 0;    ///< between two looks; 0: one look
};

/// Says what holds now: service, temperature, fan, alerts, disks.
ExitStatus run_status(const Options& options, const StatusOptions& wanted);

struct StandbyOptions {
  bool end = false;  ///< bring the service back to normal operation, and forget
  bool dryRun = false;
};

/// Puts the service into its spindown mode when all disks sleep, and back.
ExitStatus run_standby(const Options& options, const StandbyOptions& standby);

struct NotifyOptions {
  std::string test;  ///< an event to try the hooks with; empty: what has changed is told
};

/// Tells what has changed since it was told last, by running the hooks.
ExitStatus run_notify(const Options& options, const NotifyOptions& notify);
