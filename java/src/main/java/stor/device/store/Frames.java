package stor.device.store;

import io.netty.buffer.ByteBuf;
import java.nio.ByteBuffer;
import java.util.zip.CRC32C;
import stor.device.skiplist.FileLocation;

/**
 * The layout of a segment file: frames, one after another, each a sector and its trailer.
 *
 * <pre>
 *   [ sector: 512 or 4096 bytes ][ checksum: 4 ][ low half of its sequence: 4 ]
 * </pre>
 *
 * <p>The checksum is the CRC32C of the sector, its sequence, its offset on the device, and the
 * segment and position of the frame. So a frame proves that it is the one that was written there:
 * not torn, not another sector's, and no older one, since no place is ever written twice.
 *
 * <p>The trailer is why a place in a file advances by 8 bytes more with every whole sector, which
 * is what the maps reckon with.
 */
final class Frames {
    static final int TRAILER_BYTES = 8;

    private final int sectorSize;

    Frames(int sectorSize) {
        this.sectorSize = sectorSize;
    }

    int frameLength() {
        return sectorSize + TRAILER_BYTES;
    }

    /** Gives how many bytes a number of logical bytes, whole sectors, takes in a file. */
    int framedLength(int length) {
        return length / sectorSize * frameLength();
    }

    /**
     * Puts frames behind each other into a buffer with an array.
     *
     * @param sectors the sectors, from its reader index on; its indices stay as they are
     * @param from the first byte to take
     * @param length how many bytes to take
     * @param offset where the first sector lies on the device
     * @param place where its frame will lie
     */
    void frame(ByteBuf sectors, int from, int length, int sequence, long offset,
            FileLocation place, ByteBuffer frames) {
        for (int at = 0; at < length; at += sectorSize) {
            int start = frames.position();
            sectors.getBytes(sectors.readerIndex() + from + at, frames.array(), start, sectorSize);
            seal(frames, start, sequence, offset + at, place.plus(at, sectorSize));
            frames.position(start + frameLength());
        }
    }

    /** Puts frames that prove false, for sectors whose bytes are lost. */
    void spoil(int length, long offset, FileLocation place, ByteBuffer frames) {
        for (int at = 0; at < length; at += sectorSize) {
            int start = frames.position();
            frames.putInt(start + sectorSize,
                    ~checksum(frames, start, sequence(frames, start),
                    offset + at, place.plus(at, sectorSize)));
            frames.position(start + frameLength());
        }
    }

    /** Puts a frame that another buffer has into this one, for its new place. */
    void move(ByteBuffer old, int at, long offset, FileLocation place, ByteBuffer frames) {
        int start = frames.position();
        frames.put(old.array(), at, sectorSize);
        seal(frames, start, sequence(old, at), offset, place);
        frames.position(start + frameLength());
    }

    /** Tells whether a buffer has, at a position, the frame of a sector that lies at a place. */
    boolean isWhole(ByteBuffer frames, int at, long offset, FileLocation place) {
        return frames.getInt(at + sectorSize)
                == checksum(frames, at, sequence(frames, at), offset, place);
    }

    /** Copies the sector of a frame. */
    void unframe(ByteBuffer frames, int at, byte[] bytes, int to) {
        System.arraycopy(frames.array(), at, bytes, to, sectorSize);
    }

    private void seal(
            ByteBuffer frames, int at, int sequence, long offset, FileLocation place) {
        frames.putInt(at + sectorSize, checksum(frames, at, sequence, offset, place));
        frames.putInt(at + sectorSize + Integer.BYTES, sequence);
    }

    private int sequence(ByteBuffer frames, int at) {
        return frames.getInt(at + sectorSize + Integer.BYTES);
    }

    private int checksum(
            ByteBuffer frames, int at, int sequence, long offset, FileLocation place) {
        ByteBuffer identity = ByteBuffer.allocate(2 * Integer.BYTES + 2 * Long.BYTES)
                .putInt(sequence).putLong(offset).putLong(SegmentFiles.id(place))
                .putInt(place.offset()).flip();
        CRC32C checksum = new CRC32C();
        checksum.update(frames.array(), at, sectorSize);
        checksum.update(identity);
        return (int) checksum.getValue();
    }
}
