#pragma once

// Pieces of pages drawn at one scale (tiles of kTileSize device pixels on a
// grid from each page's top-left corner), asked with GenerateTileAsync and
// answered through a tile observer on the worker, handed to the GUI thread.
// A view says which tiles it wants and which it may keep; the cache asks for
// what is missing, withdraws what is no longer wanted and forgets the rest.
// Its pictures never pass a byte budget: the least recently wanted go first.
// GUI thread only.

#include <QImage>
#include <QObject>
#include <QPoint>
#include <Quirelle>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "GuiThread.h"

namespace Orvane::PDF {

class TileCache : public QObject {
    Q_OBJECT
public:
    static constexpr int kTileSize = 512;

    struct Key {
        int page;
        QPoint cell;  // column and row on the page's grid
        bool operator<(const Key& other) const {
            return page != other.page ? page < other.page
                                      : (cell.y() != other.cell.y() ? cell.y() < other.cell.y()
                                                                    : cell.x() < other.cell.x());
        }
    };
    struct Wanted {
        Key key;
        Rect region;  // page space
    };

    TileCache(IPDFProvider& service, IReadingProvider& reader, qint64 budgetBytes, QObject* parent);
    ~TileCache() override;

    // Forgets every tile and withdraws pending ones; answers already on their
    // way are ignored. doc -1: none.
    void Reset(int64_t doc);
    // Applied to every tile as it arrives (dark pages); Reset after changing it.
    void SetRecolour(std::function<QImage(const QImage&)> recolour) { recolour_ = std::move(recolour); }
    // Tiles at scale (pixels per point): asks for the wanted ones not held nor
    // pending, withdraws pending ones not wanted, and drops held ones for which
    // keep says no. A new scale forgets all tiles of the old one.
    void Want(double scale, const std::vector<Wanted>& wanted, const std::function<bool(const Key&)>& keep);
    // A held tile, or a null image.
    QImage Find(const Key& key) const;
    qint64 Bytes() const { return bytes_; }
    int Pending() const { return static_cast<int>(pending_.size()); }

signals:
    void TileArrived(int page);

private:
    class Observer;
    struct Held {
        QImage image;
        uint64_t used;
    };
    void OnTile(int64_t doc, unsigned page, const Rect& region, double scale, const QImage& image);
    void Forget(const Key& key);

    IPDFProvider& service_;
    IReadingProvider& reader_;
    const qint64 budget_;
    std::shared_ptr<GuiRelay> relay_;
    std::unique_ptr<Observer> observer_;
    int64_t doc_ = -1;
    double scale_ = 0.0;
    bool accepting_ = true;
    uint64_t generation_ = 0;
    uint64_t clock_ = 0;
    std::map<Key, Rect> pending_;
    std::map<Key, Held> held_;
    qint64 bytes_ = 0;
    std::function<QImage(const QImage&)> recolour_;
};

}  // namespace Orvane::PDF
