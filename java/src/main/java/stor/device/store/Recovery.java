package stor.device.store;

import java.io.Closeable;
import java.io.EOFException;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.channels.ReadableByteChannel;
import java.util.HashSet;
import java.util.List;
import java.util.Objects;
import java.util.OptionalLong;
import java.util.Set;
import java.util.stream.Stream;
import java.util.zip.CRC32C;
import stor.device.skiplist.OffHeapRangeMap;
import stor.device.store.Disk.DiskFile;

/**
 * Makes what an earlier process has left in a folder a store again, or an empty folder a new one.
 *
 * <ol>
 * <li>Read the checkpoint in the journal, and apply the batches behind it, up to the last whole one.
 * A torn one can only be the last: if a later one follows, the journal is damaged, and refused.
 * <li>Cut off what is torn, and force that.
 * <li>Delete what nothing refers to: a checkpoint that was not finished, segments whose batch never
 * came to be, or that were about to be deleted.
 * </ol>
 *
 * <p>No segment is read. A frame that is not what the map says is found when it is read.
 */
final class Recovery implements Closeable {
    private final Disk disk;
    private final StoreSettings settings;
    private DiskFile file;
    private long size;
    private OffHeapRangeMap map;
    private long sequence;
    private long nextSegment;
    private Journal journal;
    private SegmentFiles files;

    Recovery(Disk disk, StoreSettings settings) {
        this.disk = disk;
        this.settings = settings;
    }

    /** Does it; if it fails, what was there is there. */
    void run() throws IOException {
        List<String> names = disk.names();
        if (names.contains(Journal.NAME)) {
            readJournal();
        } else {
            begin(names);
        }
        takeOverSegments();
    }

    /** Gives back what no store has taken over. */
    @Override
    public void close() throws IOException {
        if (map != null) {
            map.close();
        }
        Thoroughly.forEach(Stream.<Closeable>of(journal, file).filter(Objects::nonNull).toList(),
                Closeable::close);
    }

    OffHeapRangeMap map() {
        return map;
    }

    Journal journal() {
        return journal;
    }

    SegmentFiles files() {
        return files;
    }

    long sequence() {
        return sequence;
    }

    /** Takes the segments that the map refers to; deletes the files of others. */
    private void takeOverSegments() throws IOException {
        files = new SegmentFiles(disk, nextSegment);
        Set<Long> live = liveSegments(map);
        disk.delete(Journal.NEXT_NAME);
        for (String name : disk.names()) {
            OptionalLong id = SegmentFiles.parse(name);
            if (id.isPresent() && live.remove(id.getAsLong())) {
                files.takeOver(id.getAsLong(), disk.size(name));
            } else if (id.isPresent()) {
                disk.delete(name);
            }
        }
        // Those that are missing: what lies there is an error when it is read.
        live.forEach(id -> files.takeOver(id, 0));
    }

    /** Lists the segments that a file map refers to. */
    static Set<Long> liveSegments(OffHeapRangeMap fileMap) {
        Set<Long> live = new HashSet<>();
        fileMap.forEach((offset, len, number, fileOffset, majorVer, minorVer, range) -> {
            if (!Holes.isHole(majorVer, minorVer)) {
                live.add(SegmentFiles.id(number, majorVer));
            }
        });
        return live;
    }

    private void begin(List<String> names) throws IOException {
        for (String name : names) {
            if (SegmentFiles.parse(name).isPresent()) {
                throw new IOException(name + ": found without a " + Journal.NAME
                        + " (expected: both, or an empty folder)");
            }
        }
        map = OffHeapRangeMap.create(settings.height(), settings.sectorSize());
        journal = new Journal(disk, settings);
        journal.checkpoint(map, sequence, nextSegment);
    }

    private void readJournal() throws IOException {
        file = disk.open(Journal.NAME);
        size = file.size();
        readHeader();
        FileReader reader = new FileReader(file, Journal.HEADER_BYTES, size);
        map = OffHeapRangeMap.load(reader);
        if (map.sectorSize() != settings.sectorSize()) {
            throw new IOException("sector size: " + settings.sectorSize() + " (expected: "
                    + map.sectorSize() + ", which the store was made with)");
        }
        long end = reader.position;
        long number = 0;
        for (ByteBuffer batch = readBatch(end, number); batch != null;
                batch = readBatch(end, number)) {
            apply(batch, end);
            end += batch.limit();
            number++;
        }
        requireNoneLater(end, number);
        journal = new Journal(disk, settings, file, reader.position, end, number);
    }

    private void readHeader() throws IOException {
        ByteBuffer header = read(0, Journal.HEADER_BYTES);
        CRC32C checksum = new CRC32C();
        checksum.update(header.array(), 0, Journal.HEADER_BYTES - Integer.BYTES);
        if (header.getLong() != Journal.MAGIC) {
            throw damaged(0, "is no journal");
        }
        int version = header.getInt();
        if (version != Journal.VERSION) {
            throw damaged(0, "version: " + version + " (expected: " + Journal.VERSION + ")");
        }
        sequence = header.getLong();
        nextSegment = header.getLong();
        if (header.getInt() != (int) checksum.getValue()) {
            throw damaged(0, "checksum of the header");
        }
    }

    /** Gives a whole batch of that number, or null if there is none. */
    private ByteBuffer readBatch(long start, long number) throws IOException {
        if (size - start < Journal.BATCH_HEADER_BYTES) {
            return null;
        }
        long length = read(start, Integer.BYTES).getInt() + (long) Journal.BATCH_HEADER_BYTES;
        if (length < Journal.BATCH_HEADER_BYTES || length > size - start
                || length > Journal.BATCH_HEADER_BYTES + Journal.BATCH_BYTES) {
            return null;
        }
        ByteBuffer batch = read(start, (int) length);
        return isWhole(batch, 0, (int) length) && batch.getLong(2 * Integer.BYTES) == number
                ? batch : null;
    }

    private static boolean isWhole(ByteBuffer bytes, int start, int end) {
        return bytes.getInt(start + Integer.BYTES) == Journal.checksum(bytes, start, end);
    }

    private void apply(ByteBuffer batch, long start) throws IOException {
        batch.position(2 * Integer.BYTES + Long.BYTES);
        sequence = Math.max(sequence, batch.getLong());
        try {
            while (batch.hasRemaining()) {
                Change change = Change.decode(batch);
                change.applyTo(map);
                if (change.to() != null) {
                    nextSegment = Math.max(nextSegment, SegmentFiles.id(change.to()) + 1);
                }
            }
        } catch (IOException | RuntimeException e) {
            throw damaged(start, e.toString());
        }
    }

    /** Tells a batch that a power cut has torn from one that was whole and is damaged now. */
    private void requireNoneLater(long start, long number) throws IOException {
        int most = Journal.BATCH_HEADER_BYTES + Journal.BATCH_BYTES;
        if (size - start > most) {
            throw damaged(start, (size - start) + " bytes behind batch " + number
                    + " (expected: at most one of " + most + ")");
        }
        ByteBuffer rest = read(start, (int) (size - start));
        for (int at = 1; at <= rest.limit() - Journal.BATCH_HEADER_BYTES; at++) {
            long later = rest.getLong(at + 2 * Integer.BYTES) - number;
            long end = at + (long) Journal.BATCH_HEADER_BYTES + rest.getInt(at);
            if (later > 0 && later < Journal.BATCH_BYTES && end > at && end <= rest.limit()
                    && isWhole(rest, at, (int) end)) {
                throw damaged(start, "batch " + number + ", with later ones behind it");
            }
        }
    }

    private ByteBuffer read(long position, int length) throws IOException {
        if (position + length > size) {
            throw new EOFException(Journal.NAME + ": " + size + " bytes (expected: "
                    + (position + length) + " or more)");
        }
        ByteBuffer bytes = ByteBuffer.allocate(length);
        file.read(bytes, position);
        return bytes.flip();
    }

    private static IOException damaged(long position, String what) {
        return new IOException(Journal.NAME + " at byte " + position + ": damaged: " + what);
    }

    /** Lets a map be read out of the middle of a file. */
    private static final class FileReader implements ReadableByteChannel {
        private final DiskFile file;
        private final long size;
        private long position;

        FileReader(DiskFile file, long position, long size) {
            this.file = file;
            this.position = position;
            this.size = size;
        }

        @Override
        public int read(ByteBuffer bytes) throws IOException {
            int length = (int) Math.min(bytes.remaining(), size - position);
            if (length == 0) {
                return -1;
            }
            int limit = bytes.limit();
            file.read(bytes.limit(bytes.position() + length), position);
            bytes.limit(limit);
            position += length;
            return length;
        }

        @Override
        public boolean isOpen() {
            return true;
        }

        @Override
        public void close() {
            // The file goes on as the journal.
        }
    }
}
