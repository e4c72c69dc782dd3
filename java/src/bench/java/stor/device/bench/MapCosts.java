package stor.device.bench;

import io.netty.buffer.ByteBuf;
import io.netty.buffer.Unpooled;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import stor.device.skiplist.FileLocation;
import stor.device.skiplist.NativeMemory;
import stor.device.skiplist.OffHeapRangeMap;

/**
 * Prints what maps cost: the bytes charged against the limit, and what the process grows by. Start it
 * with a small heap of fixed size that is touched at once, so that the growth is native:
 * {@code -Xms512m -Xmx512m -XX:+AlwaysPreTouch}.
 */
public final class MapCosts {
    private static final int SECTOR = 512;
    /** Every map stays until the end, so that none lies where another one was. */
    private static final List<OffHeapRangeMap> ALL = new ArrayList<>();

    private MapCosts() {
    }

    /** Prints a line for each kind of map. */
    public static void main(String[] args) throws IOException, InterruptedException {
        ByteBuf buffer = Unpooled.directBuffer(SECTOR).writeZero(SECTOR);
        System.out.println("maps x ranges: bytes charged, resident; each");
        print(1000, 0, null, "maps, to begin with");
        print(10_000, 0, null, "maps");
        print(10_000, 1, null, "maps");
        print(1000, 1000, null, "ranges");
        print(1000, 1000, buffer, "ranges with a buffer");
        print(1, 1_000_000, null, "ranges");
        ALL.forEach(OffHeapRangeMap::close);
        buffer.release();
    }

    private static void print(int count, int ranges, ByteBuf buffer, String each)
            throws IOException, InterruptedException {
        List<OffHeapRangeMap> maps = new ArrayList<>();
        long charged = NativeMemory.sweep();
        long resident = residentBytes();
        for (int i = 0; i < count; i++) {
            maps.add(OffHeapRangeMap.create(12, SECTOR));
        }
        // In turns, as devices are written to: maps that are filled one by one take less.
        for (int range = 0; range < ranges; range++) {
            for (OffHeapRangeMap map : maps) {
                FileLocation place = new FileLocation(1, 2 * SECTOR * range, 1, 0);
                if (buffer == null) {
                    map.insert(2L * SECTOR * range, SECTOR, place);
                } else {
                    map.insert(2L * SECTOR * range, SECTOR, place, buffer);
                }
            }
        }
        long things = each.startsWith("maps") ? count : (long) count * ranges;
        System.out.printf("%,d x %,d: %,d, %,d; %s%n", count, ranges,
                (NativeMemory.sweep() - charged) / things, (residentBytes() - resident) / things,
                each);
        ALL.addAll(maps);
    }

    private static long residentBytes() throws IOException {
        String line = Files.readAllLines(Path.of("/proc/self/status")).stream()
                .filter(status -> status.startsWith("VmRSS:")).findFirst().orElseThrow();
        return Long.parseLong(line.replaceAll("[^0-9]", "")) * 1024;
    }
}
