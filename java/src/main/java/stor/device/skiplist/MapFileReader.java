package stor.device.skiplist;

import java.io.EOFException;
import java.io.IOException;
import java.nio.BufferUnderflowException;
import java.nio.ByteBuffer;
import java.nio.channels.ReadableByteChannel;
import java.util.zip.CRC32C;

/**
 * Makes a map of a file in the form of {@link MapFile}. Nothing is used before the checksum behind
 * it has been compared, and nothing that was read decides how much is allocated: a block is at most
 * 64 KiB, whatever it says. Reads exactly to the file's end mark, so that more may follow it. One
 * thread, once.
 */
final class MapFileReader {
    private final ReadableByteChannel channel;
    private final CRC32C checksum = new CRC32C();
    private final ByteBuffer bytes = ByteBuffer.allocate(
            Integer.BYTES + MapFile.BLOCK_BYTES + MapFile.CHECKSUM_BYTES);
    private int sectorSize;
    private boolean aligned;
    private long taken;
    private long blockStart;
    private long count;

    // What the next range is expected to begin with.
    private long end = Long.MIN_VALUE;
    private int len;
    private int place;
    private int number;
    private int majorVer;
    private int minorVer;

    MapFileReader(ReadableByteChannel channel) {
        this.channel = channel;
        bytes.limit(0);
    }

    /** Reads the file into a new map, which is closed again if that fails. */
    OffHeapRangeMap read() throws IOException {
        OffHeapRangeMap map = readHeader();
        try {
            while (readBlock()) {
                map.appendAll(() -> appendBlock(map));
            }
            return map;
        } catch (IOException | RuntimeException | Error failure) {
            map.close();
            throw failure;
        }
    }

    private void appendBlock(OffHeapRangeMap map) throws IOException {
        while (bytes.hasRemaining()) {
            readRange();
            map.append(end - len, len, new FileLocation(
                    Byte.toUnsignedInt((byte) number), placeOfLast(), majorVer, minorVer));
            count++;
        }
    }

    private OffHeapRangeMap readHeader() throws IOException {
        fetch(MapFile.HEADER_BYTES + MapFile.CHECKSUM_BYTES);
        require("magic", bytes.getLong(), MapFile.MAGIC);
        require("version", bytes.getShort(), MapFile.VERSION);
        byte kind = bytes.get();
        int height = bytes.get();
        sectorSize = bytes.getInt();
        verify();
        aligned = kind == MapFile.WHOLE_SECTORS;
        if (!aligned) {
            require("kind", kind, MapFile.ANY_RANGES);
        }
        try {
            return aligned
                    ? OffHeapRangeMap.create(height, sectorSize)
                    : OffHeapRangeMap.createUnaligned(height, sectorSize);
        } catch (IllegalArgumentException e) {
            throw damaged(e.getMessage());
        }
    }

    /** Leaves the ranges of the next block in the buffer; gives false at the end mark. */
    private boolean readBlock() throws IOException {
        blockStart = taken;
        bytes.limit(0);
        fetch(Integer.BYTES);
        int length = bytes.getInt();
        if (length < 0 || length > MapFile.BLOCK_BYTES) {
            throw damaged("length: " + length + " (expected: 0 to " + MapFile.BLOCK_BYTES + ")");
        }
        fetch((length == 0 ? Long.BYTES : length) + MapFile.CHECKSUM_BYTES);
        verify();
        if (length == 0) {
            require("ranges", bytes.getLong(), count);
        }
        return length > 0;
    }

    /** Reads this many bytes more behind those that the buffer has. */
    private void fetch(int more) throws IOException {
        int position = bytes.limit();
        bytes.limit(position + more).position(position);
        while (bytes.hasRemaining()) {
            if (channel.read(bytes) < 0) {
                throw new EOFException(where() + "ends after " + bytes.position()
                        + " bytes (expected: " + bytes.limit() + " or more)");
            }
        }
        bytes.position(position);
        taken += more;
    }

    /** Compares the checksum that ends what was fetched, and hides it. */
    private void verify() throws IOException {
        int at = bytes.limit() - MapFile.CHECKSUM_BYTES;
        int found = MapFile.checksum(checksum, bytes, 0, at);
        int expected = bytes.getInt(at);
        checksum.update(bytes.array(), at, MapFile.CHECKSUM_BYTES);
        if (found != expected) {
            throw damaged(String.format("CRC32C: %08x (expected: %08x)", found, expected));
        }
        bytes.limit(at);
    }

    private void readRange() throws IOException {
        try {
            int flags = bytes.get();
            if ((flags & ~MapFile.ALL_FLAGS) != 0) {
                throw damaged("flags of range " + count + ": " + flags + " (expected: 0 to "
                        + MapFile.ALL_FLAGS + ")");
            }
            long offset = (flags & MapFile.GAP) == 0 ? end : end + number(Long.SIZE);
            boolean behind = offset >= end;
            len = (flags & MapFile.LENGTH) == 0 ? len : (int) number(Integer.SIZE);
            place = expected(flags & MapFile.PLACE, place);
            number = (flags & MapFile.NUMBER) == 0 ? number : bytes.get();
            majorVer = expected(flags & MapFile.MAJOR, majorVer);
            minorVer = expected(flags & MapFile.MINOR, minorVer);
            if (!behind || len <= 0 || offset == Long.MIN_VALUE || offset >= Long.MAX_VALUE - len) {
                throw damaged("range " + count + ": offset: " + offset + ", len: " + len
                        + " (expected: a range behind " + end + ")");
            }
            if (aligned && !FusionGuard.isAligned(offset, len, sectorSize)) {
                throw damaged("range " + count + ": offset: " + offset + ", len: " + len
                        + " (expected: multiples of " + sectorSize + ")");
            }
            end = offset + len;
            place = (int) (place + FileLocation.fileDistance(len, sectorSize));
        } catch (BufferUnderflowException e) {
            throw damaged("range " + count + ": cut at the end of the block (expected: whole)");
        }
    }

    private int placeOfLast() {
        return (int) (place - FileLocation.fileDistance(len, sectorSize));
    }

    private int expected(int differs, int value) throws IOException {
        return differs == 0 ? value : value + MapFile.unzigzag((int) number(Integer.SIZE));
    }

    /** Reads a number without sign, seven bits a byte, the lowest first. */
    private long number(int bits) throws IOException {
        long value = 0;
        for (int shift = 0; shift < bits; shift += 7) {
            byte next = bytes.get();
            value |= (next & 0x7FL) << shift;
            if (next >= 0) {
                return value;
            }
        }
        throw damaged("range " + count + ": a number of more than " + bits + " bits");
    }

    private void require(String name, long found, long expected) throws IOException {
        if (found != expected) {
            throw damaged(String.format("%s: %x (expected: %x)", name, found, expected));
        }
    }

    private IOException damaged(String what) {
        return new IOException(where() + what);
    }

    private String where() {
        return "load: block at byte " + blockStart + ": ";
    }
}
