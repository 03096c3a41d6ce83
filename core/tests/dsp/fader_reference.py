#!/usr/bin/env python3
"""What a fader must output, computed by numpy from the closed forms.

ramp IN OUT FROM_DB TO_DB START COUNT
    IN with frames START .. START + COUNT - 1 scaled by a linear ramp from
    the gain FROM_DB toward TO_DB, the last frame one step short of TO_DB.
automation IN OUT RATE LOCATION LENGTH MINIMUM_DB MAXIMUM_DB
    IN with each frame of the automation, from round(LOCATION * RATE) for
    round(LENGTH * RATE) frames, scaled by the gain whose decibels run in a
    straight line from MINIMUM_DB at LOCATION to MAXIMUM_DB at its end.

Files are native 32-bit floats, one channel.
"""
import sys

import numpy as np


def gain(decibels):
    return np.float32(10.0 ** (decibels / 20.0))


def ramp(x, start_db, end_db, start, count):
    first, last = gain(start_db), gain(end_db)
    step = np.float32((last - first) / np.float32(count))
    x[start:start + count] *= first + np.arange(count, dtype=np.float32) * step
    return x


def automation(x, rate, location, length, minimum, maximum):
    start, count = int(round(location * rate)), int(round(length * rate))
    t = np.clip((start + np.arange(count)) / rate, location, location + length)
    decibels = minimum + (maximum - minimum) * (t - location) / length
    x[start:start + count] *= (10.0 ** (decibels / 20.0)).astype(np.float32)
    return x


def main():
    mode, source, target = sys.argv[1:4]
    numbers = [float(value) for value in sys.argv[4:]]
    x = np.fromfile(source, dtype=np.float32)
    if mode == "ramp":
        y = ramp(x, numbers[0], numbers[1], int(numbers[2]), int(numbers[3]))
    else:
        y = automation(x, *numbers)
    y.astype(np.float32).tofile(target)


if __name__ == "__main__":
    main()
