// README: imports
import io.netty.buffer.ByteBuf;
import io.netty.buffer.Unpooled;
import stor.device.skiplist.FileLocation;
import stor.device.skiplist.OffHeapRangeMap;
// README: class

/** A first program. The README shows the lines between the marks. */
public final class Tutorial {
    private Tutorial() {
    }

    /** Prints the ranges around an overwritten one. */
    public static void main(String[] args) {
        // README: body
        ByteBuf buffer = Unpooled.wrappedBuffer(new byte[512]);
        FileLocation place = new FileLocation(4, 0, 2, 0);         // file 4 at 0, version 2.0
        try (OffHeapRangeMap map = OffHeapRangeMap.create(12, 512)) { // 12 levels, 512-byte sectors
            map.insert(0, 1 << 20, new FileLocation(3, 0, 1, 0));  // 1 MiB lies in file 3
            map.insert(4096, 512, place, buffer);                  // overwrites 512 bytes of it
            map.forEach(4000, 200, (offset, len, file, fileOffset, major, minor, range) ->
                    System.out.println(offset + ": " + len + " bytes in file " + file + " at "
                            + fileOffset + (range.buffer() == null ? "" : ", and in memory")));
            map.compareAndRelease(4096, 512, place);               // they are in the file by now
        }
        buffer.release();                                          // the map has released its own
        // README: end
    }
}
