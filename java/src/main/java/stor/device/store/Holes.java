package stor.device.store;

/**
 * Tells holes from data. A hole is stored as the empty location, whose offset and versions are -1.
 * When it is cut, the offset of what remains advances like any other; the versions stay.
 */
final class Holes {
    private Holes() {
    }

    static boolean isHole(int majorVer, int minorVer) {
        return majorVer == -1 && minorVer == -1;
    }
}
