package stor.device.store;

import io.netty.buffer.ByteBuf;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.util.ArrayList;
import java.util.List;
import stor.device.skiplist.FileLocation;
import stor.device.skiplist.OffHeapRangeMap;

/**
 * The read path. A plan says where the bytes of one read are: in buffers, which it holds, and in
 * segment files, which it keeps from being deleted. It is made under the lock of the maps and
 * carried out without it, so that no file is read while others wait.
 */
final class ReadPlan implements AutoCloseable {
    private final long start;
    private final int length;
    private final StoreSettings settings;
    private final SegmentFiles files;
    private final DamagedSectors damaged;
    private final Frames frames;
    private final List<Buffered> buffered = new ArrayList<>();
    private final List<Stored> stored = new ArrayList<>();

    private record Gap(long start, long end) {
    }

    private record Buffered(long start, int length, ByteBuf bytes, int from) {
    }

    private record Stored(long start, int length, Segment segment, FileLocation place) {
    }

    ReadPlan(long start, int length, StoreSettings settings, SegmentFiles files,
            DamagedSectors damaged) {
        this.start = start;
        this.length = length;
        this.settings = settings;
        this.files = files;
        this.damaged = damaged;
        frames = new Frames(settings.sectorSize());
    }

    /** Looks into the buffers, the newest first, and for what is left into the file map. */
    ReadPlan find(List<OffHeapRangeMap> memoryMaps, OffHeapRangeMap fileMap) {
        List<Gap> gaps = List.of(new Gap(start, start + length));
        for (OffHeapRangeMap memory : memoryMaps) {
            List<Gap> left = new ArrayList<>();
            for (Gap gap : gaps) {
                findBuffered(memory, gap, left);
            }
            gaps = left;
        }
        for (Gap gap : gaps) {
            findStored(fileMap, gap);
        }
        return this;
    }

    /** Fetches the bytes. What was found nowhere is zero. */
    byte[] execute() throws IOException {
        byte[] bytes = new byte[length];
        for (Buffered piece : buffered) {
            piece.bytes.getBytes(piece.bytes.readerIndex() + piece.from, bytes,
                    (int) (piece.start - start), piece.length);
        }
        for (Stored piece : stored) {
            read(piece, bytes);
        }
        return bytes;
    }

    /** Gives buffers and segments back. */
    @Override
    public void close() {
        buffered.forEach(piece -> piece.bytes.release());
        stored.forEach(piece -> files.unpin(piece.segment));
    }

    private void findBuffered(OffHeapRangeMap memory, Gap gap, List<Gap> left) {
        long[] reached = {gap.start};
        memory.forEach(gap.start, (int) (gap.end - gap.start),
                (offset, len, number, fileOffset, majorVer, minorVer, range) -> {
                    ByteBuf bytes = range.retainedBuffer();
                    if (bytes == null && !Holes.isHole(majorVer, minorVer)) {
                        // Its buffer was given back after it had reached the file.
                        return;
                    }
                    long from = Math.max(offset, gap.start);
                    long to = Math.min(offset + len, gap.end);
                    addGap(left, reached[0], from);
                    if (bytes != null) {
                        buffered.add(new Buffered(
                                from, (int) (to - from), bytes, (int) (from - offset)));
                    }
                    reached[0] = to;
                });
        addGap(left, reached[0], gap.end);
    }

    private static void addGap(List<Gap> gaps, long from, long to) {
        if (from < to) {
            gaps.add(new Gap(from, to));
        }
    }

    private void findStored(OffHeapRangeMap fileMap, Gap gap) {
        fileMap.forEach(gap.start, (int) (gap.end - gap.start),
                (offset, len, number, fileOffset, majorVer, minorVer, range) -> {
                    if (Holes.isHole(majorVer, minorVer)) {
                        return;
                    }
                    long from = Math.max(offset, gap.start);
                    long to = Math.min(offset + len, gap.end);
                    FileLocation place = new FileLocation(number, fileOffset, majorVer, minorVer)
                            .plus(from - offset, settings.sectorSize());
                    stored.add(new Stored(from, (int) (to - from),
                            files.pin(SegmentFiles.id(place)), place));
                });
    }

    private void read(Stored piece, byte[] bytes) throws IOException {
        ByteBuffer found = ByteBuffer.allocate(frames.framedLength(piece.length));
        try {
            files.read(piece.segment, found, piece.place.offset());
        } catch (IOException e) {
            throw new IOException("sectors from offset " + piece.start + " to "
                    + (piece.start + piece.length) + ", " + piece.segment.name() + " at byte "
                    + piece.place.offset() + ": " + e.getMessage(), e);
        }
        for (int at = 0; at < piece.length; at += settings.sectorSize()) {
            long offset = piece.start + at;
            FileLocation place = piece.place.plus(at, settings.sectorSize());
            int position = frames.framedLength(at);
            if (!frames.isWhole(found, position, offset, place)) {
                throw damaged.note(offset, place, "is not what was written there");
            }
            frames.unframe(found, position, bytes, (int) (offset - start));
        }
    }
}
