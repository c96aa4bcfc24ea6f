"""How near a processed sound is to the clean one: distortion, noise, intelligibility, delay."""
import numpy as np

EPSILON = 1e-12


def delay_of(sound, clean, most):
    """By how many samples a sound lags behind the clean one, up to `most`, either way: where their correlation peaks."""
    length = 1 << int(np.ceil(np.log2(len(sound) + len(clean))))
    spectrum = np.fft.rfft(sound, length) * np.conj(np.fft.rfft(clean, length))
    correlation = np.fft.irfft(spectrum, length)
    lags = np.concatenate((correlation[-most:], correlation[: most + 1]))
    return int(np.argmax(np.abs(lags))) - most


def aligned(sound, delay, length):
    """As long as the clean sound, without the delay."""
    moved = sound[delay:] if delay >= 0 else np.concatenate((np.zeros(-delay, sound.dtype), sound))
    return np.pad(moved[:length], (0, max(0, length - len(moved))))


def scaled(sound, clean):
    """With the gain that brings it nearest to the clean sound, so that no level is preferred."""
    return sound * (np.dot(sound, clean) / (np.dot(sound, sound) + EPSILON))


def si_sdr(sound, clean):
    """Scale-invariant ratio of the signal to all distortion, in dB."""
    target = clean * (np.dot(sound, clean) / (np.dot(clean, clean) + EPSILON))
    return 10 * np.log10((np.sum(target**2) + EPSILON) / (np.sum((sound - target) ** 2) + EPSILON))


def segmental_snr(sound, clean, rate):
    """Mean of the ratios of 20 ms each, -10 to 35 dB, where the clean sound is within 40 dB of its loudest 20 ms."""
    size = rate // 50
    clean, sound = (each[: len(each) // size * size].reshape(-1, size) for each in (clean, scaled(sound, clean)))
    power = np.sum(clean**2, axis=1)
    noise = np.sum((sound - clean) ** 2, axis=1)
    ratios = 10 * np.log10((power + EPSILON) / (noise + EPSILON))
    return float(np.mean(np.clip(ratios, -10, 35)[power > 1e-4 * power.max()]))


def _frames(sound, size, hop):
    return np.lib.stride_tricks.sliding_window_view(sound, size)[::hop]


def _thirds_of_octaves(rate, size, bands=15, lowest=150.0):
    """A row of ones and zeros for each band, over the bins of a Fourier transform."""
    bins = np.arange(size // 2 + 1) * rate / size
    centres = lowest * 2 ** (np.arange(bands) / 3)
    edges = [[np.argmin(np.abs(bins - centre * 2 ** (side / 6))) for side in (-1, 1)] for centre in centres]
    return np.array([[low <= i < high for i in range(len(bins))] for low, high in edges], np.float64)


def stoi(sound, clean):
    """Short-time objective intelligibility of Taal, Hendriks, Heusdens and Jensen (2011), at 10000 Hz: 0 to 1.

    Silent frames are left out; in bands of a third of an octave from 150 Hz, envelopes of 384 ms are normalised, limited
    to a signal-to-distortion ratio of -15 dB, and correlated with those of the clean sound.
    """
    size, hop, spectrum, segment, range_db, limit_db = 256, 128, 512, 30, 40, -15
    window = np.hanning(size + 2)[1:-1]
    pieces, others = _frames(clean, size, hop) * window, _frames(sound, size, hop) * window
    energies = 20 * np.log10(np.linalg.norm(pieces, axis=1) + EPSILON)
    loud = energies > energies.max() - range_db

    def envelopes(frames):
        joined = np.zeros((len(frames) - 1) * hop + size)
        for i, frame in enumerate(frames):
            joined[i * hop : i * hop + size] += frame
        power = np.abs(np.fft.rfft(_frames(joined, size, hop) * window, spectrum, axis=1)) ** 2
        return np.sqrt(_thirds_of_octaves(10000, spectrum) @ power.T)

    x, y = (np.lib.stride_tricks.sliding_window_view(envelopes(each[loud]), segment, axis=1) for each in (pieces, others))
    y = y * np.linalg.norm(x, axis=2, keepdims=True) / (np.linalg.norm(y, axis=2, keepdims=True) + EPSILON)
    y = np.minimum(y, x * (1 + 10 ** (-limit_db / 20)))
    x, y = (each - each.mean(axis=2, keepdims=True) for each in (x, y))
    norms = np.linalg.norm(x, axis=2) * np.linalg.norm(y, axis=2)
    return float(np.mean(np.sum(x * y, axis=2) / (norms + EPSILON)))
