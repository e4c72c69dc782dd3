package stor.device.replay;

import java.awt.BasicStroke;
import java.awt.Color;
import java.awt.Font;
import java.awt.geom.Rectangle2D;
import java.util.Locale;
import org.jfree.chart.ChartFactory;
import org.jfree.chart.JFreeChart;
import org.jfree.chart.StandardChartTheme;
import org.jfree.chart.axis.LogAxis;
import org.jfree.chart.axis.NumberAxis;
import org.jfree.chart.axis.NumberTickUnit;
import org.jfree.chart.axis.TickUnits;
import org.jfree.chart.block.BlockBorder;
import org.jfree.chart.plot.CategoryPlot;
import org.jfree.chart.plot.Plot;
import org.jfree.chart.plot.PlotOrientation;
import org.jfree.chart.plot.XYPlot;
import org.jfree.chart.renderer.category.LineAndShapeRenderer;
import org.jfree.data.category.CategoryDataset;
import org.jfree.data.xy.XYDataset;
import org.jfree.svg.SVGGraphics2D;
import org.jfree.svg.ViewBox;

/**
 * Draws the charts of the report, each as an SVG element that can stand in a page with others. The
 * colours are the page's: each is drawn as a key, whose place its variable takes in the end.
 */
final class Charts {
    private static final int WIDTH = 430;
    private static final int HEIGHT = 260;
    private static final int MAX_SERIES = 6;
    // For the half of the highest label that is above its line.
    private static final int TOP = 6;
    private static final Color TEXT = new Color(0x010101);
    private static final Color GRID = new Color(0x020202);
    private static final Color TRANSPARENT = new Color(0, 0, 0, 0);
    private static final StandardChartTheme THEME = theme();
    private static final int CELL = 8;

    private int drawn;

    /** Draws values over time, from 0 up; a value that is missing is a gap in its line. */
    String overTime(String timeAxis, String valueAxis, boolean bytes, XYDataset values) {
        JFreeChart chart = ChartFactory.createXYLineChart(null, timeAxis, valueAxis, values,
                PlotOrientation.VERTICAL, true, false, false);
        THEME.apply(chart);
        XYPlot plot = chart.getXYPlot();
        plot.setRangeGridlinePaint(GRID);
        plot.setDomainGridlinesVisible(false);
        plot.getDomainAxis().setLowerMargin(0);
        plot.getDomainAxis().setUpperMargin(0);
        NumberAxis axis = (NumberAxis) plot.getRangeAxis();
        axis.setAutoRangeIncludesZero(true);
        axis.setNumberFormatOverride(ShortNumbers.format(bytes));
        if (bytes) {
            axis.setStandardTickUnits(powersOfTwo());
        }
        for (int i = 0; i < values.getSeriesCount(); i++) {
            plot.getRenderer().setSeriesPaint(i, series(i));
            plot.getRenderer().setSeriesStroke(i, new BasicStroke(1.5f));
        }
        return draw(chart, plot);
    }

    /** Draws values of very different sizes by category. */
    String byCategory(String categoryAxis, String valueAxis, CategoryDataset values) {
        JFreeChart chart = ChartFactory.createLineChart(null, categoryAxis, valueAxis, values,
                PlotOrientation.VERTICAL, true, false, false);
        THEME.apply(chart);
        CategoryPlot plot = chart.getCategoryPlot();
        LogAxis axis = new LogAxis(valueAxis);
        axis.setBase(10);
        axis.setTickUnit(new NumberTickUnit(1));
        axis.setMinorTickMarksVisible(false);
        axis.setNumberFormatOverride(ShortNumbers.format(false));
        axis.setLabelFont(plot.getRangeAxis().getLabelFont());
        axis.setTickLabelFont(plot.getRangeAxis().getTickLabelFont());
        axis.setLabelPaint(TEXT);
        axis.setTickLabelPaint(TEXT);
        plot.setRangeAxis(axis);
        plot.setRangeGridlinePaint(GRID);
        LineAndShapeRenderer renderer = (LineAndShapeRenderer) plot.getRenderer();
        for (int i = 0; i < values.getRowCount(); i++) {
            renderer.setSeriesPaint(i, series(i));
            renderer.setSeriesStroke(i, new BasicStroke(1.5f));
            renderer.setSeriesShapesVisible(i, true);
        }
        return draw(chart, plot);
    }

    /** Draws cells, row by row, as the page's colours {@code --cell-N} of their numbers. */
    static String cells(int[] cells, int columns) {
        int rows = (cells.length + columns - 1) / columns;
        StringBuilder svg = new StringBuilder(String.format(Locale.ROOT,
                "<svg class=\"cells\" viewBox=\"0 0 %d %d\" shape-rendering=\"crispEdges\">",
                columns * CELL, rows * CELL));
        for (int from = 0; from < cells.length;) {
            // Neighbours of one colour in a row are one rectangle.
            int to = from + 1;
            while (to < cells.length && to % columns != 0 && cells[to] == cells[from]) {
                to++;
            }
            svg.append(String.format(Locale.ROOT, "<rect x=\"%d\" y=\"%d\" width=\"%d\" height=\"%d\""
                    + " style=\"fill:var(--cell-%d)\"/>", from % columns * CELL,
                    from / columns * CELL, (to - from) * CELL, CELL, cells[from] + 1));
            from = to;
        }
        return svg.append("</svg>").toString();
    }

    private static TickUnits powersOfTwo() {
        TickUnits units = new TickUnits();
        for (int power = 0; power < Long.SIZE - 1; power++) {
            units.add(new NumberTickUnit(1L << power, ShortNumbers.format(true)));
        }
        return units;
    }

    private static Color series(int i) {
        return new Color(0x030303 + 0x010101 * (i % MAX_SERIES));
    }

    private static StandardChartTheme theme() {
        StandardChartTheme theme = new StandardChartTheme("report");
        Font font = new Font(Font.SANS_SERIF, Font.PLAIN, 12);
        theme.setLargeFont(font);
        theme.setRegularFont(font);
        theme.setSmallFont(font);
        theme.setPlotBackgroundPaint(TRANSPARENT);
        theme.setLegendBackgroundPaint(TRANSPARENT);
        theme.setLegendItemPaint(TEXT);
        theme.setAxisLabelPaint(TEXT);
        theme.setTickLabelPaint(TEXT);
        theme.setShadowVisible(false);
        theme.setAxisOffset(BlockBorder.NONE.getInsets());
        return theme;
    }

    private String draw(JFreeChart chart, Plot plot) {
        chart.setBackgroundPaint(null);
        plot.setOutlineVisible(false);
        if (chart.getLegend() != null) {
            chart.getLegend().setFrame(BlockBorder.NONE);
        }
        SVGGraphics2D svg = new SVGGraphics2D(WIDTH, HEIGHT);
        // Names in one SVG element are seen by all elements of the page.
        drawn++;
        svg.setDefsKeyPrefix(String.format(Locale.ROOT, "chart%d-", drawn));
        chart.draw(svg, new Rectangle2D.Double(0, TOP, WIDTH, HEIGHT - TOP));
        String text = svg.getSVGElement(null, true, new ViewBox(0, 0, WIDTH, HEIGHT), null, null)
                .replace("rgb(1,1,1)", "var(--text)").replace("rgb(2,2,2)", "var(--grid)");
        for (int i = 0; i < MAX_SERIES; i++) {
            int key = series(i).getRed();
            text = text.replace(String.format(Locale.ROOT, "rgb(%d,%d,%d)", key, key, key),
                    "var(--series-" + i + ")");
        }
        return text;
    }
}
