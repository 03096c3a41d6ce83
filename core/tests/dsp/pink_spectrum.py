"""Oracle for the pink noise tests: reads mono native 32-bit floats and prints
the slope of the power spectrum in dB per decade over a band, and the RMS.

usage: pink_spectrum.py FILE SAMPLE_RATE LOW_HZ HIGH_HZ
prints: slope=<dB per decade> rms=<linear>
"""
import sys

import numpy as np


def main():
    path, rate, low, high = sys.argv[1], float(sys.argv[2]), float(sys.argv[3]), float(sys.argv[4])
    samples = np.fromfile(path, dtype=np.float32).astype(np.float64)
    segment = 16384
    count = len(samples) // segment
    window = np.hanning(segment)
    power = np.zeros(segment // 2 + 1)
    # Welch's method with non-overlapping Hann-windowed segments.
    for index in range(count):
        piece = samples[index * segment:(index + 1) * segment]
        power += np.abs(np.fft.rfft((piece - piece.mean()) * window)) ** 2
    power /= count
    frequencies = np.fft.rfftfreq(segment, 1.0 / rate)
    # Bins are spaced linearly; average them in bands spaced evenly in
    # log-frequency so that every part of the range weighs the same in the fit.
    edges = np.logspace(np.log10(low), np.log10(high), 25)
    centres, levels = [], []
    for lower, upper in zip(edges[:-1], edges[1:]):
        band = (frequencies >= lower) & (frequencies < upper)
        if band.any():
            centres.append(np.sqrt(lower * upper))
            levels.append(10.0 * np.log10(power[band].mean()))
    slope, _ = np.polyfit(np.log10(centres), levels, 1)
    rms = np.sqrt(np.mean(samples ** 2))
    print("slope=%.4f rms=%.6f" % (slope, rms))


if __name__ == "__main__":
    main()
