// An enclosure that heats up: disks, the air around them, a fan that moves it, and a sensor.
//
// Each disk and the air are lumps of one temperature. Between them, and from the air to the
// outside, heat flows in proportion to the difference (W/K). The conductance from a disk to the air
// grows with the air flow to the power of 0.6, which is what measurements give for air across
// bodies of this size; the fan's flow carries rho * c_p * Q out of the box. The fan's own heat is
// left out: it sits at the outlet, and its air takes that heat along.
#ifndef APPLIANCE_ENCLOSURE_H
#define APPLIANCE_ENCLOSURE_H

#include <string>
#include <utility>
#include <vector>

namespace appliance {

// A temperature over a day: seconds of the day, ascending from 0, and degrees Celsius.
using Schedule = std::vector<std::pair<double, double>>;

// What holds at a second of the day: straight lines between the points, and from the last one to
// the first of the next day.
double temperatureAt(const Schedule& points, double second);

struct DiskParameters {
  double capacity = 0;  // J/K
  double idle = 0;      // W
  double seek = 0;      // W
  double standby = 0;   // W
  double still = 0;     // W/K to the air that stands
  double flow = 0;      // W/K more at the fan's full flow
};

// What an enclosure's file says. All values have to be there.
struct EnclosureParameters {
  double step = 0;         // s, of the integration
  double air = 0;          // J/K, the air and what follows it: board, sheet metal
  double board = 0;        // W, all that is not a disk or the fan
  double walls = 0;        // W/K through the walls
  double fullFlow = 0;     // m3/s at the fan's full speed
  double fullSpeed = 0;    // rpm
  double startSpeed = 0;   // rpm, below which it does not start
  double stallSpeed = 0;   // rpm, below which it stops
  double spinUp = 0;       // s, time constant
  double fanPower = 0;     // W at full speed; grows with the cube of the speed
  double fullCommand = 0;  // the command for full speed: 255, or the speed itself
  double sensorPlace = 0;  // 0: in the air, 1: on the disks
  double sensorLag = 0;    // s, time constant
  double sensorStep = 0;   // thousandths of a degree, its resolution
  Schedule outside;
  DiskParameters disk;  // of the disks that follow in the file
  std::vector<DiskParameters> disks;
  std::vector<std::string> diskNames;  // sda
  // The appliance's files, from which the command is read and to which the rest is written. Empty:
  // neither. The driver's own pwm1 is for a fan whose commands are a speed.
  std::string commandFile, speedFile, pwmFile, alarmFile, sensorFile;
};

// The whole text as a finite number; false for anything else.
bool toNumber(const std::string& text, double& value);

// Whether a temperature outside, in degrees Celsius, is possible.
bool isOutside(double celsius);

// Reads the text of an enclosure's file. A value of the disks holds for the disks below it; of the
// outside's and the files' the last line counts, so that a program can add its own. The problem,
// "LINE: what is wrong" or, for what is missing, what it is; empty when there is none.
std::string readEnclosure(const std::string& text, EnclosureParameters& parameters);

// What happened over a length of time: means by time, and the warmest moments.
struct Interval {
  double seconds = 0;
  double speed = 0;     // rpm
  double fanPower = 0;  // W
  double sound = 0;     // energy of the sound against full speed: (speed / full speed)^5
  double sensor = 0;    // degrees Celsius, the warmest
  std::vector<double> disks;
};

enum class Load { kIdle, kSeek, kStandby };

class Enclosure {
 public:
  // Everything has the outside's temperature, and the fan stands still.
  explicit Enclosure(EnclosureParameters parameters);

  // Lets time pass up to a moment under one command, in steps of at most the parameters' length.
  // Stable for every length: each step solves for the temperatures at its end.
  void advanceTo(double seconds, double command);

  const EnclosureParameters& parameters() const { return m_parameters; }
  double seconds() const { return m_seconds; }
  double outside() const;
  double air() const { return m_air; }
  double sensor() const { return m_sensor; }
  const std::vector<double>& disks() const { return m_disks; }
  double speed() const { return m_speed; }  // rpm
  double flow() const;                      // m3/s
  double fanPower() const;                  // W
  Interval takeInterval();                  // since the last call

  void setLoad(std::size_t disk, Load load) { m_loads[disk] = load; }
  Load load(std::size_t disk) const { return m_loads[disk]; }
  void setOutside(double celsius) { m_parameters.outside = {{0, celsius}}; }
  void setBlocked(bool blocked) { m_blocked = blocked; }
  void setDust(double factor) { m_dust = factor; }  // 1: clean; the flow is multiplied by it
  // From now on these temperatures hold instead of what the heat would make of them; nothing is
  // changed by a NaN. Disks beyond the list are as warm as the last of it.
  void setTemperatures(const std::vector<double>& celsius);

 private:
  void watch(double seconds);
  void turnFan(double seconds, double command);
  void heat(double seconds);
  double diskPower(std::size_t disk) const;

  EnclosureParameters m_parameters;
  double m_seconds = 0;
  double m_air;
  double m_sensor;
  std::vector<double> m_disks;
  std::vector<Load> m_loads;
  double m_speed = 0;
  double m_dust = 1;
  bool m_blocked = false;
  bool m_isReplayed = false;
  Interval m_interval;  // sums, not means
};

}  // namespace appliance

#endif
