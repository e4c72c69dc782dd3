package stor.device.replay;

import java.util.Arrays;
import java.util.function.Consumer;
import stor.device.skiplist.Visitor;

/**
 * The address space of a device as rows of cells, each of them one stretch of bytes. What was never
 * written is left out, and holes are shortened. A cell shows how old most of what it holds is: the
 * segments fall into {@link #AGES} classes, as many segments in each.
 */
final class AddressPicture {
    static final int COLUMNS = 96;
    static final int AGES = 6;
    static final int HOLE = -1;
    private static final int MAX_CELLS = 20 * COLUMNS;
    private static final int HOLE_SHARE = 50;
    private static final int NUMBERS = 256;

    private final int sectorSize;
    private final int[] cells;
    private final long[] most;
    private final long cellBytes;
    private final long longestHole;
    private long live;
    private long shown;
    private long[] segments = new long[16];
    private int segmentCount;
    private long start;

    /** Walks over a layout three times. */
    AddressPicture(Consumer<Visitor> layout, int sectorSize) {
        this.sectorSize = sectorSize;
        layout.accept((offset, len, number, fileOffset, major, minor, range) -> {
            if (!isHole(major, minor)) {
                live += len;
                addSegment(segment(number, major));
            }
        });
        segments = Arrays.stream(segments, 0, segmentCount).distinct().sorted().toArray();
        longestHole = Math.max(sectorSize, live / sectorSize / HOLE_SHARE * sectorSize);
        layout.accept((offset, len, number, fileOffset, major, minor, range) ->
                shown += shownBytes(len, isHole(major, minor)));
        long sectors = shown / sectorSize;
        cellBytes = Math.max(1, (sectors + MAX_CELLS - 1) / MAX_CELLS) * sectorSize;
        cells = new int[(int) ((shown + cellBytes - 1) / cellBytes)];
        most = new long[cells.length];
        Arrays.fill(cells, HOLE);
        layout.accept((offset, len, number, fileOffset, major, minor, range) -> {
            boolean isHole = isHole(major, minor);
            fill(shownBytes(len, isHole), isHole ? HOLE : age(segment(number, major)));
        });
    }

    /** Gives the age of each cell, 0 for the oldest, or {@link #HOLE}. */
    int[] cells() {
        return cells.clone();
    }

    long cellBytes() {
        return cellBytes;
    }

    /** Gives the bytes that are not holes. */
    long liveBytes() {
        return live;
    }

    int segments() {
        return segments.length;
    }

    private void addSegment(long segment) {
        if (segmentCount > 0 && segments[segmentCount - 1] == segment) {
            return;
        }
        if (segmentCount == segments.length) {
            long[] known = Arrays.stream(segments).distinct().toArray();
            segmentCount = known.length;
            segments = Arrays.copyOf(known, 16 + 2 * known.length);
        }
        segments[segmentCount++] = segment;
    }

    private void fill(long bytes, int age) {
        long end = start + bytes;
        for (long at = start; at < end;) {
            int cell = (int) (at / cellBytes);
            long next = Math.min(end, (cell + 1) * cellBytes);
            if (next - at > most[cell]) {
                most[cell] = next - at;
                cells[cell] = age;
            }
            at = next;
        }
        start = end;
    }

    private int age(long segment) {
        return Arrays.binarySearch(segments, segment) * AGES / segments.length;
    }

    private long shownBytes(long bytes, boolean isHole) {
        return isHole ? Math.min(bytes, longestHole) : bytes;
    }

    private static boolean isHole(int major, int minor) {
        return major == -1 && minor == -1;
    }

    private static long segment(int number, int generation) {
        return (long) generation * NUMBERS + number;
    }
}
