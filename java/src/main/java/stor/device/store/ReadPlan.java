package stor.device.store;

import io.netty.buffer.ByteBuf;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.util.ArrayList;
import java.util.List;
import stor.device.skiplist.OffHeapRangeMap;

/**
 * Where the bytes of one read are: in buffers, which the plan holds, and in segment files, which it
 * keeps from being deleted. It is made under the lock of the maps and carried out without it, so
 * that no file is read while others wait.
 */
final class ReadPlan implements AutoCloseable {
    private final long start;
    private final int length;
    private final Sectors sectors;
    private final SegmentFiles files;
    private final List<Buffered> buffered = new ArrayList<>();
    private final List<Stored> stored = new ArrayList<>();

    private record Gap(long start, long end) {
    }

    private record Buffered(long start, int length, ByteBuf bytes, int from) {
    }

    private record Stored(long start, int length, Segment segment, int position) {
    }

    ReadPlan(long start, int length, Sectors sectors, SegmentFiles files) {
        this.start = start;
        this.length = length;
        this.sectors = sectors;
        this.files = files;
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
            ByteBuffer frames =
                    piece.segment.read(piece.position, sectors.framedLength(piece.length));
            sectors.verify(frames, piece.start, piece.segment);
            sectors.unframe(frames, bytes, (int) (piece.start - start));
        }
        return bytes;
    }

    /** Gives buffers and segments back. */
    @Override
    public void close() throws IOException {
        buffered.forEach(piece -> piece.bytes.release());
        for (Stored piece : stored) {
            files.unpin(piece.segment);
        }
    }

    private void findBuffered(OffHeapRangeMap memory, Gap gap, List<Gap> left) {
        long[] reached = {gap.start};
        memory.forEach(gap.start, (int) (gap.end - gap.start),
                (offset, len, number, fileOffset, majorVer, minorVer, range) -> {
                    // Holes, and ranges whose buffer was given back after they reached the file.
                    ByteBuf bytes = range.retainedBuffer();
                    if (bytes == null) {
                        return;
                    }
                    long from = Math.max(offset, gap.start);
                    long to = Math.min(offset + len, gap.end);
                    addGap(left, reached[0], from);
                    buffered.add(new Buffered(
                            from, (int) (to - from), bytes, (int) (from - offset)));
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
                    stored.add(new Stored(from, (int) (to - from), files.pin(number, majorVer),
                            fileOffset + sectors.framedLength((int) (from - offset))));
                });
    }
}
