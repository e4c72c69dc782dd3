package stor.device.store;

import java.io.IOException;
import java.nio.ByteBuffer;
import stor.device.store.Disk.DiskFile;

/**
 * One file of frames. Written once, front to back, by one {@link SegmentWriter}; read by anyone.
 * When it may go is decided by {@link SegmentFiles}, which also guards the fields that say so.
 */
final class Segment {
    final long id;
    private final Disk disk;
    private DiskFile file;

    // Guarded by SegmentFiles.
    int pins;
    long bytes;
    boolean sealed;
    boolean retired;

    /** Makes a segment whose file is opened when it is read. */
    Segment(Disk disk, long id) {
        this.disk = disk;
        this.id = id;
    }

    synchronized void create() throws IOException {
        file = disk.create(name());
    }

    synchronized void write(ByteBuffer frames, int position) throws IOException {
        file.write(frames, position);
    }

    /** Readers go on meanwhile. */
    void force() throws IOException {
        opened().force();
    }

    synchronized void truncate(int length) throws IOException {
        opened().truncate(length);
    }

    synchronized void read(ByteBuffer frames, int position) throws IOException {
        opened().read(frames, position);
    }

    private synchronized DiskFile opened() throws IOException {
        if (file == null) {
            file = disk.open(name());
        }
        return file;
    }

    /** Closes the file until it is read again. */
    synchronized void rest() throws IOException {
        if (file != null) {
            DiskFile open = file;
            file = null;
            open.close();
        }
    }

    void delete() throws IOException {
        rest();
        disk.delete(name());
    }

    String name() {
        return SegmentFiles.name(id);
    }
}
