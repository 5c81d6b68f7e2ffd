#pragma once

#include "LogLine.h"
#include "LogParser.h"
#include "LogText.h"
#include "QxNJson.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

/// Feeds any bytes to the log parser and ends the process when something does not hold that always must: that it does
/// not matter where chunks are cut, that lines are bounded, and that what clients get is JSON. Fits libFuzzer.
///
/// The first byte says whether there is a terminal; then chunks follow, each after a byte with its length.
class LogParserCheck {
public:
    static void Run(const std::uint8_t* data, size_t size) {
        if (size == 0) {
            return;
        }
        const bool hasTerminal = (data[0] & 1) != 0;
        LogParserCheck inPieces(hasTerminal);
        LogParserCheck atOnce(hasTerminal);
        std::string all;
        for (size_t at = 1; at < size;) {
            const size_t length = std::min<size_t>(data[at], size - at - 1);
            // A copy of exactly its size, so that a sanitizer sees every byte read beyond it.
            const std::vector<char> chunk(data + at + 1, data + at + 1 + length);
            at += 1 + length;
            inPieces.Take({chunk.data(), chunk.size()});
            all.append(chunk.data(), chunk.size());
        }
        atOnce.Take(all);
        Require(inPieces._lines == atOnce._lines);
        Require(inPieces._isGood == atOnce._isGood);
    }

private:
    static constexpr size_t LineBytes = 64;

    explicit LogParserCheck(bool hasTerminal) : _parser(hasTerminal, LineBytes) {}

    static void Require(bool holds) {
        if (!holds) {
            abort();
        }
    }

    void Take(std::string_view bytes) {
        _isGood = _parser.Take(bytes, [this](const LogParser::Piece& piece) { TakePiece(piece); }) && _isGood;
        Require(_parser.Broken().size() <= 2048);
    }

    void TakePiece(const LogParser::Piece& piece) {
        Require(piece.text.size() <= LineBytes);
        Require(LogText::ReadTime(piece.timeText) == piece.time);
        const LogLinePtr line = _maker.Make(piece);
        const QxNJson::json object = QxNJson::json::parse(line->json);
        Require(object.is_object() && object["text"].is_string());
        const auto cursor = LogCursor::Read(object["cursor"].get<std::string>());
        Require(cursor && cursor->mark == line->mark && cursor->IsOf(Id));
        _lines.push_back(line->json);
    }

    static constexpr std::string_view Id = "0123456789abcdef0123456789abcdef";

    LogParser _parser;
    LogLineMaker _maker{Id};
    std::vector<std::string> _lines;
    bool _isGood = true;
};
