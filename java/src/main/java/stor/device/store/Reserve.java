package stor.device.store;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.util.SplittableRandom;
import stor.device.store.Disk.DiskFile;

/**
 * Room on the disk that is kept for the work that gives room back: a file, enough for what a
 * compaction moves before it can free a segment and for the journal of it, of random bytes, which no
 * file system stores in less room. When the disk is full
 * it is deleted, and made again when there is room. Safe for use by several threads.
 */
final class Reserve {
    static final String NAME = "reserve";

    private static final int CHUNK_BYTES = 1 << 14;

    private final Disk disk;
    private final long bytes;
    private boolean held;

    /** Something to do that writes. */
    interface Work {
        void run() throws IOException;
    }

    Reserve(Disk disk, StoreSettings settings) {
        this.disk = disk;
        bytes = settings.segmentBytes() + settings.segmentBytes() / 8L + CHUNK_BYTES;
    }

    /** Takes or makes the file; without room, or on a failing disk, there is none for a while. */
    synchronized void refill() {
        try {
            if (!held) {
                held = disk.names().contains(NAME) && disk.size(NAME) == bytes || make();
            }
        } catch (IOException e) {
            giveUp();
        }
    }

    /** Fails if there is none and no room for one: then only what gives room back may write. */
    void require() throws IOException {
        refill();
        if (!isHeld()) {
            throw new IOException("disk: no room for the reserve (expected: " + bytes
                    + " bytes, for a compaction; discard and compact, or make room)");
        }
    }

    private synchronized boolean isHeld() {
        return held;
    }

    private boolean make() throws IOException {
        SplittableRandom random = new SplittableRandom();
        byte[] chunk = new byte[CHUNK_BYTES];
        try (DiskFile file = disk.create(NAME)) {
            for (long at = 0; at < bytes; at += CHUNK_BYTES) {
                random.nextBytes(chunk);
                file.write(ByteBuffer.wrap(
                        chunk, 0, (int) Math.min(CHUNK_BYTES, bytes - at)), at);
            }
            file.force();
        }
        return true;
    }

    /** Does the work; if that fails, makes room and does it once more. */
    void spend(Work work) throws IOException {
        try {
            work.run();
        } catch (IOException failure) {
            if (!giveUp()) {
                throw failure;
            }
            work.run();
        }
    }

    /** Tells whether there was something to give up. */
    private synchronized boolean giveUp() {
        boolean had = held;
        held = false;
        try {
            disk.delete(NAME);
        } catch (IOException e) {
            return false;
        }
        return had;
    }
}
