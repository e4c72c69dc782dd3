package stor.device.skiplist;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.channels.WritableByteChannel;
import java.util.ArrayList;
import java.util.List;
import java.util.zip.CRC32C;

/**
 * Puts a map into the form of {@link MapFile}: first all of it into the heap, inside the map's
 * guard, then, outside of it, to the channel. So a channel that is slow, waits or uses the map holds
 * up nobody. One thread, once.
 */
final class MapFileWriter {
    private final List<ByteBuffer> filled = new ArrayList<>();
    private final CRC32C checksum = new CRC32C();
    private final int sectorSize;
    private ByteBuffer block;

    // What the next range is expected to begin with.
    private long end = Long.MIN_VALUE;
    private int len;
    private int place;
    private int number;
    private int majorVer;
    private int minorVer;

    MapFileWriter(int height, int sectorSize, boolean aligned) {
        this.sectorSize = sectorSize;
        ByteBuffer header = ByteBuffer.allocate(MapFile.HEADER_BYTES + MapFile.CHECKSUM_BYTES)
                .putLong(MapFile.MAGIC).putShort(MapFile.VERSION)
                .put(aligned ? MapFile.WHOLE_SECTORS : MapFile.ANY_RANGES).put((byte) height)
                .putInt(sectorSize);
        finish(header);
        block = newBlock();
    }

    /** Takes all ranges of a map whose guard the caller is inside. */
    void encode(long map, BufferedRanges buffered) {
        long count = 0;
        for (long node = MapSearch.first(map); !NodeReader.isEndMark(node);
                node = NodeReader.next(node)) {
            if (buffered == BufferedRanges.REFUSE) {
                requireNoBuffer(node);
            }
            put(node);
            count++;
        }
        finishBlock();
        finish(ByteBuffer.allocate(Integer.BYTES + Long.BYTES + MapFile.CHECKSUM_BYTES)
                .putInt(0).putLong(count));
    }

    void writeTo(WritableByteChannel channel) throws IOException {
        for (ByteBuffer bytes : filled) {
            while (bytes.hasRemaining()) {
                channel.write(bytes);
            }
        }
    }

    private static void requireNoBuffer(long node) {
        if (NodeReader.isMemoryType(node) && NodeReader.buffer(node) != null) {
            throw new IllegalStateException("save: range at offset " + NodeReader.offset(node)
                    + ": with a buffer (expected: none, or " + BufferedRanges.KEEP_LOCATION + ")");
        }
    }

    private void put(long node) {
        if (block.remaining() < MapFile.RANGE_BYTES + MapFile.CHECKSUM_BYTES) {
            finishBlock();
        }
        long offset = NodeReader.offset(node);
        int nextLen = NodeReader.len(node);
        int nextPlace = NodeReader.fileOffset(node);
        int nextNumber = NodeReader.fileNumber(node);
        int nextMajor = NodeReader.majorVer(node);
        int nextMinor = NodeReader.minorVer(node);
        int flags = (offset != end ? MapFile.GAP : 0)
                | (nextLen != len ? MapFile.LENGTH : 0)
                | (nextPlace != place ? MapFile.PLACE : 0)
                | (nextNumber != number ? MapFile.NUMBER : 0)
                | (nextMajor != majorVer ? MapFile.MAJOR : 0)
                | (nextMinor != minorVer ? MapFile.MINOR : 0);
        block.put((byte) flags);
        if (offset != end) {
            putNumber(offset - end);
        }
        if (nextLen != len) {
            putNumber(nextLen);
        }
        putDifference(nextPlace, place);
        if (nextNumber != number) {
            block.put((byte) nextNumber);
        }
        putDifference(nextMajor, majorVer);
        putDifference(nextMinor, minorVer);
        end = offset + nextLen;
        len = nextLen;
        place = (int) (nextPlace + FileLocation.fileDistance(nextLen, sectorSize));
        number = nextNumber;
        majorVer = nextMajor;
        minorVer = nextMinor;
    }

    private void putDifference(int value, int expected) {
        if (value != expected) {
            putNumber(Integer.toUnsignedLong(MapFile.zigzag(value - expected)));
        }
    }

    /** Puts a number without sign, seven bits a byte, the lowest first. */
    private void putNumber(long value) {
        long left = value;
        while ((left & ~0x7F) != 0) {
            block.put((byte) (left | 0x80));
            left >>>= 7;
        }
        block.put((byte) left);
    }

    private static ByteBuffer newBlock() {
        return ByteBuffer
                .allocate(Integer.BYTES + MapFile.BLOCK_BYTES + MapFile.CHECKSUM_BYTES)
                .position(Integer.BYTES);
    }

    private void finishBlock() {
        int bytes = block.position() - Integer.BYTES;
        if (bytes > 0) {
            finish(block.putInt(0, bytes));
            block = newBlock();
        }
    }

    private void finish(ByteBuffer bytes) {
        bytes.putInt(MapFile.checksum(checksum, bytes, 0, bytes.position()));
        checksum.update(bytes.array(), bytes.position() - MapFile.CHECKSUM_BYTES,
                MapFile.CHECKSUM_BYTES);
        filled.add(bytes.flip());
    }
}
