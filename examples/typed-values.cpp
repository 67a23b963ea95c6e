// Posts numbers and reads them back as numbers: typed-values
// Exits 0 when all values are as expected.

#include <cstdio>

#include "statusmanager/Helpers.h"

int main()
{
    status::post("fan.rpm", 0); // posts "0"; postStatus("fan.rpm", 0) would pass a null pointer
    status::post("room.celsius", 21.5);
    status::post("fan.on", false);
    status::post("fan.mode", "quiet");
    status::postEvent("fan.stopped"); // no value, no delay

    // Queries see earlier posts of this thread. They return nothing for an unknown key or a text that is not
    // a number.
    const int rpm = status::get<int>("fan.rpm").value_or(-1);
    const double celsius = status::get<double>("room.celsius").value_or(0);
    const bool isOn = status::get<bool>("fan.on").value_or(true);
    const bool isModeANumber = status::get<int>("fan.mode").has_value();
    const bool isKnown = status::find("fan.unknown").has_value();
    std::printf("rpm %d, %.1f C, fan %s\n", rpm, celsius, isOn ? "on" : "off");

    // A message of exactly 512 bytes would lose its end on the way, so post() refuses it.
    const std::string text(512 - std::string(R"({"postStatus":{"fan.log":""}})").size(), 'x');
    const bool isRefused = !status::post("fan.log", text) && status::post("fan.log", text + ' ');
    return !isModeANumber && !isKnown && isRefused ? 0 : 1;
}
