package stor.device.bench;

import stor.device.skiplist.NativeMemory;

/** Reads the native bytes in use as they are now, not as of the last sweep. */
public final class Sweep {
    private Sweep() {
    }

    /** Waits for a sweep, and gives what it finds in use. */
    public static long bytesInUse() throws InterruptedException {
        long start = System.nanoTime();
        long bytes;
        do {
            Thread.sleep(50);
            bytes = NativeMemory.bytesInUse();
        } while (NativeMemory.millisSinceSweep() >= (System.nanoTime() - start) / 1_000_000);
        return bytes;
    }
}
