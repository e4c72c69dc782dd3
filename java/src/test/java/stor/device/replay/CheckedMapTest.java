package stor.device.replay;

import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import io.netty.buffer.ByteBuf;
import java.util.function.LongConsumer;
import org.junit.jupiter.api.Test;
import stor.device.skiplist.JniSkipListNative;

/** A comparison is worth what it finds: changes the native map behind the model's back. */
class CheckedMapTest {
    private static final Location AT = new Location(false, (byte) 1, 0, 1, 1);

    @Test
    void everyKindOfDifferenceIsFound() {
        assertFound("end of a run", map -> JniSkipListNative.insert(
                map, 5000, 10, 0, 1, 1, (byte) 1));
        assertFound("range", map -> JniSkipListNative.insert(map, 0, 100, 1, 1, 1, (byte) 1));
        assertFound("buffer: null", JniSkipListNative::release);
        assertFound("inserts", map -> JniSkipListNative.insert(map, 0, 0, 0, 1, 1, (byte) 1));
        assertFound("bytes of", map -> {
            long node = JniSkipListNative.getNodes(map, 1000, 1)[0];
            ByteBuf buffer = JniSkipListNative.getNodeFileBuff(node);
            buffer.setByte(99, ~buffer.getByte(99));
        });
    }

    private static void assertFound(String what, LongConsumer change) {
        try (CheckedMap map = new CheckedMap(4, 512, new CountedBuffers(), new Timings())) {
            map.insert(0, 100, AT);
            map.insertWithBuff(1000, 100, AT, 1);
            map.checkAll();
            change.accept(map.handle());
            Difference found = assertThrows(Difference.class, map::checkAll);
            assertTrue(found.getMessage().contains(what), found.getMessage());
        }
    }
}
