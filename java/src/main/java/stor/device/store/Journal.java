package stor.device.store;

import java.io.Closeable;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.channels.WritableByteChannel;
import java.util.List;
import java.util.Objects;
import java.util.stream.Stream;
import java.util.zip.CRC32C;
import stor.device.skiplist.OffHeapRangeMap;
import stor.device.store.Disk.DiskFile;

/**
 * What the file map is, on disk: a checkpoint of it and every change since, in one file.
 *
 * <pre>
 *   journal     header | map file | batch | batch | ...
 *   header      magic 8 | version 4 | sequence 8 | next segment 8 | checksum 4
 *   batch       length of the changes 4 | checksum 4 | number 8 | sequence 8 | changes
 * </pre>
 *
 * <p>A batch counts when it is whole. One is forced before the next is begun, so that a power cut
 * can tear only the last. A checkpoint is a new file that takes the place of the old in one step.
 *
 * <p>After a failure nobody knows what of it is on disk. Until {@link #makeSure} has come to its
 * end, nothing may be changed that depends on it, and no segment deleted. One thread at a time.
 */
final class Journal implements Closeable {
    static final String NAME = "journal";
    static final String NEXT_NAME = "journal.next";
    static final long MAGIC = 0x89_52_4D_4A_0D_0A_1A_0AL;  // "\x89RMJ\r\n\x1a\n"
    static final int VERSION = 1;
    static final int HEADER_BYTES = 2 * Long.BYTES + Long.BYTES + 2 * Integer.BYTES;
    static final int BATCH_HEADER_BYTES = 2 * Integer.BYTES + 2 * Long.BYTES;
    /** The most bytes of changes in a batch. */
    static final int BATCH_BYTES = 1 << 20;

    private final Disk disk;
    private final long leastTail;
    private DiskFile file;
    private long checkpointEnd;
    private long end;
    private long number;
    /** A whole checkpoint that may have become the journal, or not. */
    private DiskFile successor;
    private long successorLength;
    private boolean endDoubtful;
    private boolean nameDoubtful;

    /** Makes a journal that has no file yet. */
    Journal(Disk disk, StoreSettings settings) {
        this.disk = disk;
        leastTail = settings.segmentBytes();
    }

    /** Goes on with a file that was read up to its last whole batch; what is behind goes. */
    Journal(Disk disk, StoreSettings settings, DiskFile file, long checkpointEnd, long end,
            long number) throws IOException {
        this(disk, settings);
        this.file = file;
        this.checkpointEnd = checkpointEnd;
        this.end = end;
        this.number = number;
        endDoubtful = true;
        nameDoubtful = true;
        makeSure();
    }

    /** Adds changes, in as many batches as they need; when this returns they last. */
    void append(List<Change> changes, long sequence) throws IOException {
        makeSure();
        ByteBuffer batch = encode(changes, sequence);
        endDoubtful = true;
        file.write(batch, end);
        file.force();
        endDoubtful = false;
        end += batch.limit();
        number++;
    }

    private ByteBuffer encode(List<Change> changes, long sequence) {
        ByteBuffer batch = ByteBuffer
                .allocate(BATCH_HEADER_BYTES + changes.size() * Change.MOST_BYTES)
                .position(2 * Integer.BYTES).putLong(number).putLong(sequence);
        changes.forEach(change -> change.encode(batch));
        batch.flip().putInt(0, batch.limit() - BATCH_HEADER_BYTES);
        return batch.putInt(Integer.BYTES, checksum(batch, 0, batch.limit()));
    }

    /** Gives the checksum of a batch: of all of it but the checksum itself. */
    static int checksum(ByteBuffer bytes, int start, int end) {
        CRC32C checksum = new CRC32C();
        checksum.update(bytes.array(), start, Integer.BYTES);
        int from = start + 2 * Integer.BYTES;
        checksum.update(bytes.array(), from, end - from);
        return (int) checksum.getValue();
    }

    /** Settles what a failure has left open: what was not known to last has not happened. */
    void makeSure() throws IOException {
        if (successor != null) {
            settleSuccessor();
        }
        if (endDoubtful) {
            file.truncate(end);
            file.force();
            endDoubtful = false;
        }
        if (nameDoubtful) {
            disk.forceNames();
            nameDoubtful = false;
        }
    }

    /** Tells whether reading the changes would take longer than reading a new checkpoint. */
    boolean isLong() {
        return end - checkpointEnd > Math.max(leastTail, 2 * checkpointEnd);
    }

    long bytes() {
        return end;
    }

    /** Begins anew with a map that all changes so far have been applied to. */
    void checkpoint(OffHeapRangeMap map, long sequence, long nextSegment) throws IOException {
        makeSure();
        DiskFile next = disk.create(NEXT_NAME);
        try {
            next.write(header(sequence, nextSegment), 0);
            Appender appender = new Appender(next, HEADER_BYTES);
            map.save(appender);
            next.force();
            successorLength = appender.position;
        } catch (IOException | RuntimeException | Error failure) {
            discard(next);
            throw failure;
        }
        successor = next;
        disk.rename(NEXT_NAME, NAME);
        makeSure();
    }

    /** Finds out by its old name whether it has been renamed, whatever the renaming said. */
    private void settleSuccessor() throws IOException {
        boolean renamed = !disk.names().contains(NEXT_NAME);
        DiskFile next = successor;
        successor = null;
        if (renamed) {
            succeed(next);
        } else {
            discard(next);
        }
    }

    private void succeed(DiskFile next) {
        DiskFile last = file;
        file = next;
        checkpointEnd = successorLength;
        end = successorLength;
        number = 0;
        endDoubtful = false;
        nameDoubtful = true;
        if (last != null) {
            closeQuietly(last);
        }
    }

    private static ByteBuffer header(long sequence, long nextSegment) {
        ByteBuffer header = ByteBuffer.allocate(HEADER_BYTES).putLong(MAGIC).putInt(VERSION)
                .putLong(sequence).putLong(nextSegment);
        CRC32C checksum = new CRC32C();
        checksum.update(header.array(), 0, header.position());
        return header.putInt((int) checksum.getValue()).flip();
    }

    private void discard(DiskFile next) {
        closeQuietly(next);
        try {
            disk.delete(NEXT_NAME);
        } catch (IOException e) {
            // It is nothing but room: the next checkpoint takes its place.
        }
    }

    /** Closes a file of which nothing is wanted any more. */
    private static void closeQuietly(DiskFile file) {
        try {
            file.close();
        } catch (IOException e) {
            // Its handle is gone all the same.
        }
    }

    @Override
    public void close() throws IOException {
        Thoroughly.forEach(Stream.of(file, successor).filter(Objects::nonNull).toList(),
                DiskFile::close);
    }

    /** Lets a map be written into the middle of a file. */
    private static final class Appender implements WritableByteChannel {
        private final DiskFile file;
        private long position;

        Appender(DiskFile file, long position) {
            this.file = file;
            this.position = position;
        }

        @Override
        public int write(ByteBuffer bytes) throws IOException {
            int length = bytes.remaining();
            file.write(bytes, position);
            position += length;
            return length;
        }

        @Override
        public boolean isOpen() {
            return true;
        }

        @Override
        public void close() {
            // The file is closed by the journal.
        }
    }
}
