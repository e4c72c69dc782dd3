package stor.device.replay;

import java.awt.Color;
import java.util.Arrays;
import java.util.List;
import java.util.Map;
import java.util.TreeMap;
import stor.device.skiplist.MappedRange;

/**
 * The address space of a device as rows of cells, each of them one stretch of bytes. What was never
 * written is left out, and holes are shortened. A cell shows the segment that has most of it.
 */
final class AddressPicture {
    static final int COLUMNS = 112;
    static final int HOLE = -1;
    private static final int MAX_CELLS = 24 * COLUMNS;
    private static final int HOLE_SHARE = 50;
    private static final Color HOLE_COLOUR = new Color(0xE4E4E4);

    private final int[] cells;
    private final long cellBytes;

    AddressPicture(List<MappedRange> layout, int sectorSize) {
        long live = layout.stream().filter(range -> number(range) != HOLE)
                .mapToLong(MappedRange::len).sum();
        long longestHole = Math.max(sectorSize, live / sectorSize / HOLE_SHARE * sectorSize);
        long bytes = layout.stream().mapToLong(range -> shownBytes(range, longestHole)).sum();
        long sectors = bytes / sectorSize;
        cellBytes = Math.max(1, (sectors + MAX_CELLS - 1) / MAX_CELLS) * sectorSize;
        cells = new int[(int) ((bytes + cellBytes - 1) / cellBytes)];
        Arrays.fill(cells, HOLE);
        long[] most = new long[cells.length];
        long start = 0;
        for (MappedRange range : layout) {
            long end = start + shownBytes(range, longestHole);
            for (long at = start; at < end;) {
                int cell = (int) (at / cellBytes);
                long next = Math.min(end, (cell + 1) * cellBytes);
                if (next - at > most[cell]) {
                    most[cell] = next - at;
                    cells[cell] = number(range);
                }
                at = next;
            }
            start = end;
        }
    }

    int[] cells() {
        return cells.clone();
    }

    long cellBytes() {
        return cellBytes;
    }

    /** Gives a colour to every segment that is seen in any of the pictures, and to holes. */
    static Map<Integer, Color> colours(List<AddressPicture> pictures) {
        Map<Integer, Color> colours = new TreeMap<>();
        colours.put(HOLE, HOLE_COLOUR);
        pictures.stream().flatMapToInt(picture -> Arrays.stream(picture.cells)).distinct().sorted()
                .filter(number -> number != HOLE)
                .forEach(number -> colours.put(number, Charts.colour(colours.size())));
        return colours;
    }

    private static long shownBytes(MappedRange range, long longestHole) {
        return number(range) == HOLE ? Math.min(range.len(), longestHole) : range.len();
    }

    private static int number(MappedRange range) {
        return range.location().isUnversioned() ? HOLE : range.location().number();
    }
}
