#!/usr/bin/env python3
"""The magnitude response of an impulse response, measured by numpy.

eq_response.py IN OUT N
    IN holds the impulse response; OUT gets |DFT| of its first N samples at
    bins 0 .. N/2. Files are native 32-bit floats.
"""
import sys

import numpy as np

source, target, n = sys.argv[1], sys.argv[2], int(sys.argv[3])
response = np.fromfile(source, dtype=np.float32).astype(np.float64)[:n]
np.abs(np.fft.rfft(response, n)).astype(np.float32).tofile(target)
