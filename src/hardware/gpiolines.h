#pragma once

// The machine-stop relay's lines in the sysfs interface of the kernel's GPIO driver.

constexpr char GpioFolder[] = "/sys/class/gpio";

// Numbers of the lines on the base unit's board.
constexpr int DriveLine = 37;   ///< out: 1 closes the relay, 0 opens it
constexpr int MonitorLine = 38; ///< in: 0 while the contact is closed
