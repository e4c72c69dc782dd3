package stor.device.replay;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.stream.Stream;

/** Says what the program runs on. */
final class Machine {
    private Machine() {
    }

    /** Gives the processor, its number, the memory, the system and Java. */
    static String description() {
        Runtime.Version java = Runtime.version();
        String memory = field(Path.of("/proc/meminfo"), "MemTotal").replaceAll("\\D", "");
        String processor = field(Path.of("/proc/cpuinfo"), "model name");
        return (processor.isEmpty() ? System.getProperty("os.arch") : processor) + ", "
                + Runtime.getRuntime().availableProcessors() + " processors, "
                + (memory.isEmpty() ? "" : ShortNumbers.shortenBytes(
                        1024 * Double.parseDouble(memory)) + " of memory, ")
                + System.getProperty("os.name") + " " + System.getProperty("os.version")
                + ", Java " + java + " with "
                + ShortNumbers.shortenBytes(Runtime.getRuntime().maxMemory()) + " of heap at most";
    }

    private static String field(Path file, String name) {
        try (Stream<String> lines = Files.lines(file)) {
            return lines.filter(line -> line.startsWith(name)).findFirst()
                    .map(line -> line.substring(line.indexOf(':') + 1).strip())
                    .orElse("");
        } catch (IOException e) {
            return "";
        }
    }
}
